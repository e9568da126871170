# Load and soak, which scripts/soak runs at length. Memory and times under the sanitizers would say
# nothing about the library.
if(NOT TOVIK_SANITIZE)
  add_executable(soak soak/Blocking.cpp soak/Child.cpp soak/Clients.cpp soak/Server.cpp
                      soak/Services.cpp)
  target_include_directories(soak PRIVATE ${PROJECT_SOURCE_DIR})
  target_link_libraries(soak PRIVATE tovik_test_flags TovikService Tovik Kelvo)
  set(soak --program $<TARGET_FILE:soak> --short)
  add_test(NAME soak.Short COMMAND ${Python3_EXECUTABLE} -B ${CMAKE_CURRENT_LIST_DIR}/soak.py ${soak})
  add_test(NAME soak.NoticesABrokenServer
           COMMAND ${Python3_EXECUTABLE} -B ${CMAKE_CURRENT_LIST_DIR}/sabotage.py ${soak})
  set_tests_properties(soak.Short soak.NoticesABrokenServer
                       PROPERTIES LABELS soak PROCESSORS 2 TIMEOUT 120)
endif()
