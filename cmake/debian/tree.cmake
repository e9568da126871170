# Run by cpack when the files of all packages are in place: adds what Debian wants in each, and
# compresses what it wants compressed.
file(GLOB trees ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*/usr)
foreach(tree IN LISTS trees)
  string(REGEX REPLACE ".*/([a-z]+)/usr$" "\\1" component ${tree})
  string(TOUPPER ${component} component)
  set(folder ${tree}/share/doc/${CPACK_DEBIAN_${component}_PACKAGE_NAME})
  file(COPY ${CPACK_TOVIK_BUILD}/debian/copyright ${CPACK_TOVIK_BUILD}/debian/changelog.Debian
       DESTINATION ${folder})
  file(GLOB manuals ${tree}/share/man/man*/*)
  execute_process(COMMAND gzip -9nf ${folder}/changelog.Debian ${manuals}
                          COMMAND_ERROR_IS_FATAL ANY)
endforeach()
