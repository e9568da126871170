# Compile options that every target of this project shares, as one interface target.
add_library(tovik_flags INTERFACE)
target_compile_features(tovik_flags INTERFACE cxx_std_17)
target_compile_options(tovik_flags INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
if(TOVIK_WERROR)
  target_compile_options(tovik_flags INTERFACE -Werror)
endif()
if(TOVIK_SANITIZE)
  # The check of virtual calls probes memory through a pipe, and so raises a false alarm in the tests
  # that use up all descriptors.
  target_compile_options(tovik_flags INTERFACE -fsanitize=${TOVIK_SANITIZE} -fno-sanitize=vptr
                                               -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(tovik_flags INTERFACE -fsanitize=${TOVIK_SANITIZE})
endif()

# What distributions harden their builds with. Fortification needs optimisation, and the sanitizers
# do its work themselves.
target_compile_options(tovik_flags INTERFACE -fstack-protector-strong)
target_link_options(tovik_flags INTERFACE LINKER:-z,relro LINKER:-z,now LINKER:-z,noexecstack)
if(NOT TOVIK_SANITIZE)
  target_compile_options(
    tovik_flags INTERFACE
    $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE$<SEMICOLON>-D_FORTIFY_SOURCE=2>)
endif()

# A shared library that exports what its headers mark and its version script lets through, and binds
# its own calls to its own functions, whatever an application defines under the same names.
function(tovik_shared_library target version_script)
  set_target_properties(
    ${target}
    PROPERTIES SOVERSION 1
               VERSION ${PROJECT_VERSION}
               CXX_VISIBILITY_PRESET hidden
               VISIBILITY_INLINES_HIDDEN ON
               INSTALL_RPATH "$ORIGIN"
               LINK_DEPENDS ${version_script})
  target_link_options(${target} PRIVATE LINKER:--version-script=${version_script}
                      LINKER:-Bsymbolic-functions)
  if(NOT TOVIK_SANITIZE)
    target_link_options(${target} PRIVATE LINKER:-z,defs)
  endif()
endfunction()

# Installs cmake/<name>.pc.in as <name>.pc, relocatable: the prefix is found from where the file is.
function(tovik_pkg_config name)
  set(TOVIK_PC_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
  file(RELATIVE_PATH TOVIK_PC_PREFIX /prefix/${TOVIK_PC_DIR} /prefix)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/${name}.pc.in ${PROJECT_BINARY_DIR}/${name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${name}.pc DESTINATION ${TOVIK_PC_DIR})
endfunction()
