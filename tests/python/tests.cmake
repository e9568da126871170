# The Python package, the sample clients in other languages, and the examples in foreign loops.
find_package(Python3 REQUIRED COMPONENTS Interpreter)

# A module of tests, or one class of it. NEEDS are variables: if one is unset or not found, ctest
# prints the test as not run.
function(tovik_python_test name tests)
  cmake_parse_arguments(PARSE_ARGV 2 test "" "" "NEEDS;ENVIRONMENT")
  add_test(NAME python.${name} COMMAND Python3::Interpreter -B -W error -m unittest ${tests}
           WORKING_DIRECTORY ${CMAKE_CURRENT_FUNCTION_LIST_DIR})
  set_tests_properties(python.${name} PROPERTIES TIMEOUT 120 ENVIRONMENT "${test_ENVIRONMENT}")
  foreach(needed IN LISTS test_NEEDS)
    if(NOT ${needed})
      set_tests_properties(python.${name} PROPERTIES DISABLED TRUE)
    endif()
  endforeach()
  string(REGEX REPLACE "\\..*" "" module ${tests})
  set_property(GLOBAL APPEND PROPERTY TOVIK_TEST_SOURCES python/${module}.py)
endfunction()

tovik_python_test(Wire test_wire)
tovik_python_test(Client test_client)
tovik_python_test(AsyncClient test_aio)
tovik_python_test(Admission test_admission)
tovik_python_test(Server test_server)
tovik_python_test(Service test_service)
tovik_python_test(Proxy test_proxy)
tovik_python_test(Readme test_readme)

set(peer CONFORMANCE_PEER=$<TARGET_FILE:conformance_peer>)
foreach(class IN ITEMS Services Callers Pairs)
  tovik_python_test(Conformance_${class} test_conformance.${class} ENVIRONMENT ${peer})
endforeach()
set(tovik)
if(TARGET tovik_tool)
  set(tovik TOVIK=$<TARGET_FILE:tovik_tool>)
endif()
foreach(class IN ITEMS Command CommandAndALongDescription CommandAndAPlainServer)
  tovik_python_test(Conformance_${class} test_conformance.${class} NEEDS tovik
                    ENVIRONMENT ${peer} ${tovik})
endforeach()

set(hostmon)
if(TARGET hostmon)
  set(hostmon HOSTMON=$<TARGET_FILE:hostmon>)
endif()
tovik_python_test(WithHostmon test_hostmon NEEDS hostmon ENVIRONMENT ${hostmon})

set(C_tools cc gcc clang)
set(Shell_tools socat)
set(Rust_tools rustc)
set(Go_tools go)
tovik_test_classes(languages python/test_languages.py)
foreach(language IN LISTS languages)
  find_program(TOVIK_${language} NAMES ${${language}_tools})
  tovik_python_test(SampleIn${language} test_languages.${language} NEEDS hostmon TOVIK_${language}
                    ENVIRONMENT ${hostmon} TOOL=${TOVIK_${language}})
endforeach()

foreach(host IN ITEMS poll sd_event glib uv asio qt libevent libev wayland)
  set(loop)
  if(TARGET loop_${host})
    set(loop LOOP=$<TARGET_FILE:loop_${host}>)
  endif()
  tovik_python_test(LoopExample_${host} test_loops NEEDS loop ENVIRONMENT ${loop})
endforeach()

# Installing takes pip and what builds packages. Types are checked where mypy is.
set(python_that_installs)
foreach(python IN ITEMS ${Python3_EXECUTABLE} /usr/bin/python3)
  execute_process(COMMAND ${python} -c "import setuptools, wheel, pip" RESULT_VARIABLE missing
                  OUTPUT_QUIET ERROR_QUIET)
  if(missing EQUAL 0)
    set(python_that_installs ${python})
    break()
  endif()
endforeach()
tovik_python_test(Package test_package NEEDS python_that_installs
                  ENVIRONMENT PYTHON=${python_that_installs})

find_program(TOVIK_MYPY mypy)
add_test(NAME python.Types COMMAND ${TOVIK_MYPY} --strict --cache-dir=/dev/null tovik
         WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}/python)
set_tests_properties(python.Types PROPERTIES TIMEOUT 120)
if(NOT TOVIK_MYPY)
  set_tests_properties(python.Types PROPERTIES DISABLED TRUE)
endif()
