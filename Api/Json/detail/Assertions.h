#pragma once

// Private. Included first by every source that reads messages, before anything else includes
// RapidJSON or <cassert>.
//
// RapidJSON's assertions are part of this library's behaviour: valid JSON of the wrong shape ends
// the process instead of being half understood. They therefore hold in every build type, and do not
// depend on what the application defines for its own use of RapidJSON.

#ifdef RAPIDJSON_RAPIDJSON_H_
#error "Api/Json/detail/Assertions.h comes before any RapidJSON header"
#endif

#undef NDEBUG
#include <cassert>

#define RAPIDJSON_ASSERT(condition) assert(condition)
