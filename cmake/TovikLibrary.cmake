# How the two libraries are built and installed. BUILD_SHARED_LIBS says which kind they are: shared
# unless it is set to a false value.
if(NOT DEFINED BUILD_SHARED_LIBS)
  set(BUILD_SHARED_LIBS ON)
endif()

# A library that exports what its headers mark, and binds its own calls to its own functions,
# whatever an application defines under the same names. Its run-time part is installed as a
# component named after the library in small letters, the rest as component dev.
function(tovik_library target)
  string(TOLOWER ${target} component)
  target_compile_features(${target} PUBLIC cxx_std_17)
  # As by linking tovik_flags, which a static library would have to export.
  target_include_directories(
    ${target} PRIVATE $<TARGET_PROPERTY:tovik_flags,INTERFACE_INCLUDE_DIRECTORIES>)
  target_compile_options(${target} PRIVATE $<TARGET_PROPERTY:tovik_flags,INTERFACE_COMPILE_OPTIONS>)
  target_link_options(${target} PRIVATE $<TARGET_PROPERTY:tovik_flags,INTERFACE_LINK_OPTIONS>)
  set_target_properties(
    ${target}
    PROPERTIES SOVERSION 1
               VERSION ${PROJECT_VERSION}
               CXX_VISIBILITY_PRESET hidden
               VISIBILITY_INLINES_HIDDEN ON
               POSITION_INDEPENDENT_CODE ON # a static one may become part of a shared one
               INSTALL_RPATH "$ORIGIN")
  set(version_script ${PROJECT_SOURCE_DIR}/cmake/${component}.map)
  set_target_properties(${target} PROPERTIES LINK_DEPENDS ${version_script})
  if(BUILD_SHARED_LIBS)
    tovik_version_symbols(${target} ${version_script})
  else()
    tovik_hide_internals(${target} ${version_script})
  endif()

  install(
    TARGETS ${target}
    EXPORT ${target}Targets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT ${component} NAMELINK_COMPONENT dev
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev
    FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}) # for a CMake that knows no file sets
  tovik_pkg_config(${component})
endfunction()

# The version script lets through what it names, and hides the standard library's templates too.
function(tovik_version_symbols target version_script)
  target_link_options(${target} PRIVATE LINKER:--version-script=${version_script}
                      LINKER:-Bsymbolic-functions)
  if(NOT TOVIK_SANITIZE)
    target_link_options(${target} PRIVATE LINKER:-z,defs)
  endif()
endfunction()

# Makes a static library one object, in which everything that a shared one would not export is out
# of the application's reach too. The linker would otherwise merge the library's functions of
# RapidJSON with the application's and might keep those, which need not hold the library's
# assertions. Of the linkers only GNU's can do it.
function(tovik_hide_internals target version_script)
  find_program(TOVIK_GNU_LD ld.bfd REQUIRED)
  find_program(TOVIK_GNU_OBJCOPY objcopy REQUIRED)
  # Unique symbols cannot be made local.
  target_compile_options(${target} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-fno-gnu-unique>)
  file(STRINGS ${version_script} exported REGEX "_Z")
  list(TRANSFORM exported REPLACE " *(.*);" "--keep-global-symbol=\\1")
  add_custom_command(
    TARGET ${target} POST_BUILD
    COMMAND ${TOVIK_GNU_LD} -r --force-group-allocation --whole-archive $<TARGET_FILE:${target}>
            -o ${target}.o
    COMMAND ${TOVIK_GNU_OBJCOPY} --localize-hidden --wildcard ${exported} ${target}.o
    COMMAND ${CMAKE_COMMAND} -E rm $<TARGET_FILE:${target}>
    COMMAND ${CMAKE_AR} crs $<TARGET_FILE:${target}> ${target}.o
    VERBATIM)
endfunction()

# Installs cmake/<name>.pc.in as <name>.pc, relocatable: the prefix is found from where the file is.
function(tovik_pkg_config name)
  set(folder ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
  file(RELATIVE_PATH TOVIK_PC_PREFIX /prefix/${folder} /prefix)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/${name}.pc.in ${PROJECT_BINARY_DIR}/${name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${name}.pc DESTINATION ${folder} COMPONENT dev)
endfunction()
