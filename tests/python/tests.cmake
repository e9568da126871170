# The Python package, the sample clients in other languages, and the examples in foreign loops.
find_package(Python3 REQUIRED COMPONENTS Interpreter)

function(tovik_python_test name script)
  cmake_parse_arguments(PARSE_ARGV 2 test "" "ONLY" "ENVIRONMENT")
  add_test(NAME python.${name}
           COMMAND Python3::Interpreter -B -W error
                   ${PROJECT_SOURCE_DIR}/tests/python/${script}.py ${test_ONLY})
  set_tests_properties(python.${name} PROPERTIES TIMEOUT 120 ENVIRONMENT "${test_ENVIRONMENT}")
endfunction()

tovik_python_test(Wire test_wire)
tovik_python_test(Client test_client)
tovik_python_test(AsyncClient test_aio)
tovik_python_test(Readme test_readme)
if(TARGET hostmon)
  set(hostmon HOSTMON=$<TARGET_FILE:hostmon>)
  tovik_python_test(WithHostmon test_hostmon ENVIRONMENT ${hostmon})
  find_program(TOVIK_CC NAMES cc gcc clang)
  if(TOVIK_CC)
    tovik_python_test(SampleInC test_languages ONLY C ENVIRONMENT ${hostmon} CC=${TOVIK_CC})
  endif()
  find_program(TOVIK_SOCAT socat)
  if(TOVIK_SOCAT)
    tovik_python_test(SampleInShell test_languages ONLY Shell ENVIRONMENT ${hostmon})
  endif()
  find_program(TOVIK_RUSTC rustc)
  if(TOVIK_RUSTC)
    tovik_python_test(SampleInRust test_languages ONLY Rust ENVIRONMENT ${hostmon}
                      RUSTC=${TOVIK_RUSTC})
  endif()
  find_program(TOVIK_GO go)
  if(TOVIK_GO)
    tovik_python_test(SampleInGo test_languages ONLY Go ENVIRONMENT ${hostmon} GO=${TOVIK_GO})
  endif()
endif()

foreach(host IN ITEMS poll sd_event glib uv asio qt)
  if(TARGET loop_${host})
    tovik_python_test(LoopExample_${host} test_loops ENVIRONMENT LOOP=$<TARGET_FILE:loop_${host}>)
  endif()
endforeach()

# Installing takes pip and what builds packages; types are checked where mypy is.
foreach(python IN ITEMS ${Python3_EXECUTABLE} /usr/bin/python3)
  execute_process(COMMAND ${python} -c "import pip, setuptools, wheel" RESULT_VARIABLE missing
                  OUTPUT_QUIET ERROR_QUIET)
  if(missing EQUAL 0)
    add_test(NAME python.Package
             COMMAND ${python} -B ${PROJECT_SOURCE_DIR}/tests/python/test_package.py)
    set_tests_properties(python.Package PROPERTIES TIMEOUT 120)
    break()
  endif()
endforeach()
find_program(TOVIK_MYPY mypy)
if(TOVIK_MYPY)
  add_test(NAME python.Types COMMAND ${TOVIK_MYPY} --strict --cache-dir=/dev/null tovik
           WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}/python)
  set_tests_properties(python.Types PROPERTIES TIMEOUT 120)
endif()
