#pragma once

// Part of every header that hands messages over: refuses to link an application with a library that
// was built with another layout of what they share.

#include <rapidjson/document.h>

#include <cstddef>
#include <deque>
#include <string>
#include <string_view>

#include "Export.h"

static_assert(std::string_view(RAPIDJSON_STRINGIFY(RAPIDJSON_NAMESPACE)) == "rapidjson",
              "Tovik's messages are RapidJSON documents of namespace rapidjson; leave "
              "RAPIDJSON_NAMESPACE alone, or include Tovik's headers in files of their own.");

namespace Tovik {

/// Sizes in bytes, as types so that a linker's message names them.
/// @{
enum class RapidJsonValue : std::size_t {};
enum class RapidJsonPoolAllocator : std::size_t {};
enum class StdString : std::size_t {};
enum class StdDeque : std::size_t {};
/// @}

/// A library that was built with types of these sizes. RapidJSON's versions and options, the
/// standard library's debug mode and its old strings change them, under the same names and version
/// numbers. A linker that finds this undefined has been given a library that was built otherwise.
template <RapidJsonValue, RapidJsonPoolAllocator, StdString, StdDeque>
struct LibraryBuiltWith {
  static void theseSizes();
};

using LibraryBuiltAlike =
    LibraryBuiltWith<RapidJsonValue{sizeof(rapidjson::Value)},
                     RapidJsonPoolAllocator{sizeof(rapidjson::Document::AllocatorType)},
                     StdString{sizeof(std::string)}, StdDeque{sizeof(std::deque<std::string>)}>;

template <>
TOVIK_API void LibraryBuiltAlike::theseSizes();

/// Has every application refer to it, also one whose linker drops what nobody uses.
#if __has_attribute(retain)
[[gnu::used, gnu::retain]]
#else
[[gnu::used]]
#endif
static void (*const libraryBuiltAlike)() = &LibraryBuiltAlike::theseSizes;

}  // namespace Tovik
