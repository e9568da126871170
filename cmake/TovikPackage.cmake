# What find_package(Tovik) finds: in the installed tree, wherever that is moved, and in this build's
# folder.
include(CMakePackageConfigHelpers)

set(folder ${CMAKE_INSTALL_LIBDIR}/cmake/Tovik)
set(version_file ${PROJECT_BINARY_DIR}/TovikConfigVersion.cmake)
write_basic_package_version_file(${version_file} COMPATIBILITY SameMajorVersion)
foreach(file IN ITEMS TovikConfig.cmake TovikRapidJSON.cmake)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/${file} ${PROJECT_BINARY_DIR} COPYONLY)
  install(FILES cmake/${file} DESTINATION ${folder} COMPONENT dev)
endforeach()
install(FILES ${version_file} DESTINATION ${folder} COMPONENT dev)
foreach(name IN ITEMS Kelvo Tovik)
  install(EXPORT ${name}Targets NAMESPACE ${name}:: DESTINATION ${folder} COMPONENT dev)
  export(EXPORT ${name}Targets NAMESPACE ${name}:: FILE ${PROJECT_BINARY_DIR}/${name}Targets.cmake)
endforeach()
