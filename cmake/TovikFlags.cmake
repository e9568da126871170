# Compile options that every target of this project shares, as one interface target. Everything is
# set per target: an application that adds these sources to its own build keeps its own flags.
add_library(tovik_flags INTERFACE)
target_compile_features(tovik_flags INTERFACE cxx_std_17)
target_compile_options(tovik_flags INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
# Clocks of 32-bit machines end in 2038 unless these are asked for.
target_compile_options(tovik_flags INTERFACE -D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64)
# GCC calls a library where a processor has no instructions for small or large atomic objects.
include(CheckCXXSourceCompiles)
check_cxx_source_compiles("#include <atomic>
#include <cstdint>
std::atomic<bool> small;
std::atomic<std::uint64_t> large;
int main() { return small.exchange(true) + static_cast<int>(large.exchange(1)); }"
                          TOVIK_HAS_ATOMIC_INSTRUCTIONS)
if(NOT TOVIK_HAS_ATOMIC_INSTRUCTIONS)
  target_link_libraries(tovik_flags INTERFACE atomic)
endif()
if(TOVIK_WERROR)
  target_compile_options(tovik_flags INTERFACE -Werror)
endif()
if(TOVIK_SANITIZE)
  # Reports need line numbers and no more. The check of virtual calls probes memory through a pipe,
  # and so raises a false alarm in the tests that use up all descriptors.
  target_compile_options(tovik_flags INTERFACE -g1 -fsanitize=${TOVIK_SANITIZE} -fno-sanitize=vptr
                                               -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(tovik_flags INTERFACE -fsanitize=${TOVIK_SANITIZE})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    target_compile_options(tovik_flags INTERFACE
                           -fsanitize-ignorelist=${CMAKE_CURRENT_LIST_DIR}/SanitizerIgnores.txt)
  endif()
endif()
if(TOVIK_BUILD_FUZZ)
  # A folder that stands before the C library's <assert.h>, in the libraries too.
  target_include_directories(tovik_flags INTERFACE ${PROJECT_SOURCE_DIR}/fuzz/libc)
endif()
if(TOVIK_COVERAGE)
  # Threads count together, so they have to count atomically.
  target_compile_options(tovik_flags INTERFACE --coverage -fprofile-update=atomic)
  target_link_options(tovik_flags INTERFACE --coverage)
endif()

# What distributions harden their builds with. Fortification needs optimisation, and the sanitizers
# do its work themselves.
target_compile_options(tovik_flags INTERFACE -fstack-protector-strong)
target_link_options(tovik_flags INTERFACE LINKER:-z,relro LINKER:-z,now LINKER:-z,noexecstack)
if(NOT TOVIK_SANITIZE)
  target_compile_options(
    tovik_flags INTERFACE
    $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE$<SEMICOLON>-D_FORTIFY_SOURCE=2>)
endif()
