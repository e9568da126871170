// In the fuzzing build, this stands before the C library's <assert.h>. It is the same but for one
// thing: it does not promise the compiler that __assert_fail never throws, so that every frame
// keeps its clean-up code. The library calls the same function in the same way as ever; see
// Support.h for what the fuzz targets make of the call.

#undef assert

#ifdef NDEBUG
#define assert(condition) static_cast<void>(0)
#else
#define assert(condition)       \
  (static_cast<bool>(condition) \
       ? static_cast<void>(0)   \
       : __assert_fail(#condition, __FILE__, __LINE__, __extension__ __PRETTY_FUNCTION__))
#endif

#ifndef TOVIK_FUZZ_ASSERT_H
#define TOVIK_FUZZ_ASSERT_H
#ifdef __cplusplus
extern "C" [[noreturn]] void __assert_fail(const char* condition, const char* file, unsigned line,
                                           const char* function);
#endif
#endif
