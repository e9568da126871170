# Run by cpack when it starts: works out, from the libraries and the command as they were built, the
# control files of the libraries' packages and what the packages need of others.
function(run result)
  execute_process(COMMAND ${ARGN} WORKING_DIRECTORY ${CPACK_TOVIK_BUILD}/debian
                  OUTPUT_VARIABLE said ECHO_OUTPUT_VARIABLE OUTPUT_STRIP_TRAILING_WHITESPACE
                  COMMAND_ERROR_IS_FATAL ANY)
  set(${result} "${said}" PARENT_SCOPE)
endfunction()

# A symbol that has appeared or disappeared stops this, until the list says the same.
function(describe_library package library)
  set(folder ${CPACK_TOVIK_BUILD}/debian/${package})
  file(MAKE_DIRECTORY ${folder})
  run(said dpkg-gensymbols -c4 -p${package} -v${CPACK_TOVIK_DEBIAN_VERSION} -e${library}
      -I${CMAKE_CURRENT_LIST_DIR}/${package}.symbols -P${folder} -O${folder}/symbols)
  file(STRINGS ${folder}/symbols soname LIMIT_COUNT 1)
  string(REGEX REPLACE "^(lib.*)\\.so\\.([0-9]+) .*" "\\1 \\2" soname ${soname})
  file(WRITE ${folder}/shlibs "${soname} ${package} (>= ${CPACK_PACKAGE_VERSION})\n")
  file(WRITE ${folder}/triggers "activate-noawait ldconfig\n")
endfunction()

# Of our own packages each needs the same version; those are given already.
function(add_dependencies component binary)
  run(said dpkg-shlibdeps --ignore-missing-info -O ${binary})
  string(REGEX REPLACE ".*Depends=" "" said "${said}")
  set(variable CPACK_DEBIAN_${component}_PACKAGE_DEPENDS)
  string(JOIN ", " ${variable} ${${variable}} ${said})
  set(${variable} "${${variable}}" PARENT_SCOPE)
endfunction()

set(kelvo ${CPACK_TOVIK_BUILD}/Kelvo/libKelvo.so)
set(tovik ${CPACK_TOVIK_BUILD}/Api/libTovik.so)
file(WRITE ${CPACK_TOVIK_BUILD}/debian/debian/control "")
describe_library(libkelvo1 ${kelvo})
describe_library(libtovik1 ${tovik})
add_dependencies(KELVO ${kelvo})
add_dependencies(TOVIK ${tovik})
add_dependencies(TOOLS ${CPACK_TOVIK_BUILD}/tool/tovik)
