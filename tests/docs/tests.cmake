# The documents' examples, compiled and run as they stand.
find_package(Python3 REQUIRED COMPONENTS Interpreter)
set(TOVIK_SANITIZE_FLAG)
if(TOVIK_SANITIZE)
  set(TOVIK_SANITIZE_FLAG -fsanitize=${TOVIK_SANITIZE})
endif()
add_test(NAME docs.ReadmeExampleWorks
         COMMAND Python3::Interpreter ${CMAKE_CURRENT_LIST_DIR}/readme.py
                 --source ${PROJECT_SOURCE_DIR} --compiler ${CMAKE_CXX_COMPILER}
                 "--flags=${TOVIK_SANITIZE_FLAG}"
                 --tovik $<TARGET_FILE:Tovik> --kelvo $<TARGET_FILE:Kelvo>)
set_tests_properties(docs.ReadmeExampleWorks PROPERTIES TIMEOUT 120)

if(TARGET hostmon)
  find_program(TOVIK_SOCAT socat)
  add_test(NAME docs.WireIsAsWritten
           COMMAND Python3::Interpreter -B -W error ${CMAKE_CURRENT_LIST_DIR}/wire.py
                   --source ${PROJECT_SOURCE_DIR} --hostmon $<TARGET_FILE:hostmon>
                   $<$<BOOL:${TOVIK_SOCAT}>:--socat>)
  set_tests_properties(docs.WireIsAsWritten PROPERTIES TIMEOUT 120)
endif()
