# How the libraries are built and installed. BUILD_SHARED_LIBS says which kind they are: shared
# unless it is set to a false value.
if(NOT DEFINED BUILD_SHARED_LIBS)
  set(BUILD_SHARED_LIBS ON)
endif()

# Headers have a folder of their own, as Api is too common a name for one that all share. It is what
# applications search.
set(TOVIK_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/tovik)

# tovik_library(<target> <namespace>::<name> <component>): a library that exports what its headers
# mark, and binds its own calls to its own functions, whatever an application defines under the same
# names. Applications link <namespace>::<name>, or ask pkg-config for <component>. The run-time part
# is installed as that component, the rest as component dev. cmake/<component>.map has the exported
# symbols, cmake/<component>.pc.in what pkg-config says.
function(tovik_library target exported component)
  add_library(${exported} ALIAS ${target})
  string(REGEX MATCH "(.+)::(.+)" exported ${exported})
  set(namespace ${CMAKE_MATCH_1})
  set(name ${CMAKE_MATCH_2})
  target_compile_features(${target} PUBLIC cxx_std_17)
  # Before whatever folders a surrounding project gives all its targets.
  target_include_directories(${target} BEFORE PRIVATE ${PROJECT_SOURCE_DIR})
  # As by linking tovik_flags, which a static library would have to export.
  foreach(property IN ITEMS INCLUDE_DIRECTORIES COMPILE_OPTIONS LINK_OPTIONS)
    set_property(TARGET ${target} APPEND PROPERTY
                 ${property} $<TARGET_PROPERTY:tovik_flags,INTERFACE_${property}>)
  endforeach()
  if(NOT TOVIK_HAS_ATOMIC_INSTRUCTIONS)
    target_link_libraries(${target} PRIVATE atomic)
  endif()
  # RapidJSON's assertions are part of the libraries' behaviour: valid JSON of the wrong shape ends
  # the process instead of being half understood. They hold in every build type, whatever the
  # application's build defines.
  target_compile_options(${target} PRIVATE -UNDEBUG -URAPIDJSON_ASSERT)
  set_target_properties(
    ${target}
    PROPERTIES EXPORT_NAME ${name}
               SOVERSION 1
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
    EXPORT ${namespace}Targets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT ${component} NAMELINK_COMPONENT dev
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev
    FILE_SET HEADERS DESTINATION ${TOVIK_INSTALL_INCLUDEDIR} COMPONENT dev
    INCLUDES DESTINATION ${TOVIK_INSTALL_INCLUDEDIR}) # for a CMake that knows no file sets
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
  set(prefix ${CMAKE_LIBRARY_ARCHITECTURE}-) # the target's, which a cross compiler's differ in
  find_program(TOVIK_GNU_LD NAMES ${prefix}ld.bfd ld.bfd REQUIRED)
  find_program(TOVIK_GNU_OBJCOPY NAMES ${prefix}objcopy objcopy REQUIRED)
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
