# The documents' examples, compiled and run as they stand.
find_package(Python3 REQUIRED COMPONENTS Interpreter)
add_test(NAME docs.ReadmeExampleWorks
         COMMAND Python3::Interpreter ${CMAKE_CURRENT_LIST_DIR}/readme.py
                 --source ${PROJECT_SOURCE_DIR} --compiler ${CMAKE_CXX_COMPILER}
                 "--flags=$<$<BOOL:${TOVIK_SANITIZE}>:-fsanitize=${TOVIK_SANITIZE}>"
                 --tovik $<TARGET_FILE:Tovik> --kelvo $<TARGET_FILE:Kelvo>)
set_tests_properties(docs.ReadmeExampleWorks PROPERTIES TIMEOUT 120)
