# Load and soak, which scripts/soak runs at length. Memory and times under the sanitizers would say
# nothing about the library.
if(NOT TOVIK_SANITIZE)
  find_package(CLI11 REQUIRED)
  add_executable(soak soak/Blocking.cpp soak/Clients.cpp soak/Endurance.cpp soak/Load.cpp
                      soak/Log.cpp soak/Main.cpp soak/Process.cpp soak/Report.cpp
                      soak/Scenarios.cpp soak/Server.cpp soak/Services.cpp)
  target_include_directories(soak PRIVATE ${PROJECT_SOURCE_DIR})
  target_link_libraries(soak PRIVATE tovik_test_flags TovikService Tovik Kelvo CLI11::CLI11)
  add_test(NAME soak.Short COMMAND soak --short)
  add_test(NAME soak.NoticesABrokenServer
           COMMAND ${Python3_EXECUTABLE} -B ${CMAKE_CURRENT_SOURCE_DIR}/soak/sabotage.py
                   $<TARGET_FILE:soak> ${CMAKE_CURRENT_BINARY_DIR}/soak-sabotage.json)
  set_tests_properties(soak.Short soak.NoticesABrokenServer
                       PROPERTIES LABELS soak PROCESSORS 2 TIMEOUT 120)
endif()
