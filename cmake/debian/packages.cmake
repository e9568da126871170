# Debian packages, made by cpack. scripts/package configures a build for them, and checks what comes
# out. What cpack is to do when the build is complete is in controls.cmake and tree.cmake.
set(TOVIK_DEBIAN_RELEASE 1 CACHE STRING "Release of the packages, from 1 for each version")
set(TOVIK_DEBIAN_MAINTAINER "Maintainers of Tovik <maintainers@example.org>"
    CACHE STRING "Whom the packages name; the address is a placeholder until there is one")
set(TOVIK_DEBIAN_VERSION ${PROJECT_VERSION}-${TOVIK_DEBIAN_RELEASE})
string(TIMESTAMP TOVIK_DEBIAN_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
file(READ /usr/share/doc/rapidjson-dev/copyright TOVIK_NOTICE_RAPIDJSON)
file(READ /usr/share/doc/libcli11-dev/copyright TOVIK_NOTICE_CLI11)
configure_file(${CMAKE_CURRENT_LIST_DIR}/copyright.in debian/copyright @ONLY)
configure_file(${CMAKE_CURRENT_LIST_DIR}/changelog.in debian/changelog.Debian @ONLY)

set(folder ${CMAKE_INSTALL_DATADIR}/doc/libtovik-doc)
install(FILES README.md CHANGELOG.md SECURITY.md DESTINATION ${folder} COMPONENT doc)
install(DIRECTORY docs DESTINATION ${folder} COMPONENT doc
        FILES_MATCHING REGEX "\\.(md|svg|png)$" PATTERN site EXCLUDE)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each package has its own
set(CPACK_COMPONENTS_ALL kelvo tovik dev tools doc)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_LIST_DIR}/controls.cmake)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/tree.cmake)
set(CPACK_TOVIK_BUILD ${PROJECT_BINARY_DIR})
set(CPACK_TOVIK_DEBIAN_VERSION ${TOVIK_DEBIAN_VERSION})

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${TOVIK_DEBIAN_RELEASE})
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${TOVIK_DEBIAN_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_SOURCE tovik)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# describe(<component> <package> <section> <title> <contents> [<other component>...]): the package
# of a component. It depends on those of the others.
function(describe component package section title contents)
  string(TOUPPER ${component} component)
  set(variable CPACK_DEBIAN_${component}_PACKAGE)
  set(${variable}_NAME ${package} PARENT_SCOPE)
  set(${variable}_SECTION ${section} PARENT_SCOPE)
  list(TRANSFORM ARGN APPEND " (= ${TOVIK_DEBIAN_VERSION})")
  list(JOIN ARGN ", " depends)
  set(${variable}_DEPENDS "${depends}" PARENT_SCOPE)
  set(CPACK_DEBIAN_${component}_DESCRIPTION
      "${title}
Tovik lets a process serve others on the same machine under a name: clients
send compact JSON, get status replies and subscribe to notifications, and the
kernel's credentials decide who is admitted.
.
This package contains ${contents}."
      PARENT_SCOPE)
endfunction()

describe(kelvo libkelvo1 libs "event loop and base library of message passing"
         "the base library: event loop, timers, handles, logs")
describe(tovik libtovik1 libs "message passing between processes of one machine"
         "the library" libkelvo1)
describe(dev libtovik-dev libdevel "message passing between processes - development files"
         "the headers, and what CMake and pkg-config need" libtovik1 libkelvo1)
describe(tools tovik-tools utils "message passing between processes - command"
         "a command that lists, calls and watches servers" libtovik1 libkelvo1)
describe(doc libtovik-doc doc "message passing between processes - documents"
         "the documents, as Markdown")
string(APPEND CPACK_DEBIAN_DEV_PACKAGE_DEPENDS ", rapidjson-dev")
set(CPACK_DEBIAN_DEV_PACKAGE_SUGGESTS "libtovik-doc, pkg-config")
set(CPACK_DEBIAN_DOC_PACKAGE_ARCHITECTURE all)
foreach(file IN ITEMS symbols shlibs triggers)
  list(APPEND CPACK_DEBIAN_KELVO_PACKAGE_CONTROL_EXTRA
       ${PROJECT_BINARY_DIR}/debian/libkelvo1/${file})
  list(APPEND CPACK_DEBIAN_TOVIK_PACKAGE_CONTROL_EXTRA
       ${PROJECT_BINARY_DIR}/debian/libtovik1/${file})
endforeach()
include(CPack)
