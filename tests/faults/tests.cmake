# Every system call and every allocation of five scenarios, failed one at a time. The driver takes
# the place of malloc, as the sanitizers do.
if(NOT TOVIK_SANITIZE)
  add_executable(fault_driver faults/Driver.cpp faults/Injection.cpp faults/Oracle.cpp
                              faults/Scenarios.cpp support/Faults.cpp support/Support.cpp)
  target_link_libraries(fault_driver PRIVATE tovik_test_flags Tovik Kelvo GTest::gtest
                                             ${CMAKE_DL_LIBS})
  target_include_directories(fault_driver PRIVATE ${PROJECT_SOURCE_DIR})
  target_link_options(fault_driver PRIVATE LINKER:--export-dynamic)
  foreach(scenario IN ITEMS serve call subscribe broadcast reconnect)
    add_test(NAME faults.${scenario} COMMAND fault_driver ${scenario})
    set_tests_properties(faults.${scenario} PROPERTIES TIMEOUT 300)
  endforeach()
endif()
