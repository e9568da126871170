# The library on a scripted base library. Its sources are compiled again, into the program, and
# neither of the two shared libraries is linked.
set(scripted_tests
    scripted/AsyncClientTest.cpp
    scripted/AsyncSenderTest.cpp
    scripted/ConnectionTest.cpp
    scripted/DiagnosticsTest.cpp
    scripted/LayoutTest.cpp
    scripted/ServerTest.cpp)
add_executable(
  scripted_test
  ${scripted_tests}
  scripted/BaseLibrary.cpp
  scripted/Script.cpp
  support/Faults.cpp
  support/Main.cpp
  ${PROJECT_SOURCE_DIR}/Api/Json/Async.cpp
  ${PROJECT_SOURCE_DIR}/Api/Json/Client.cpp
  ${PROJECT_SOURCE_DIR}/Api/Json/Connection.cpp
  ${PROJECT_SOURCE_DIR}/Api/Json/Server.cpp
  ${PROJECT_SOURCE_DIR}/Api/Json/Types.cpp)
target_include_directories(scripted_test PRIVATE ${PROJECT_SOURCE_DIR})
target_include_directories(scripted_test SYSTEM PRIVATE ${RAPIDJSON_INCLUDE_DIRS})
target_link_libraries(scripted_test PRIVATE tovik_test_flags GTest::gtest ${CMAKE_DL_LIBS})
target_compile_options(scripted_test PRIVATE -UNDEBUG) # as the library
target_link_options(scripted_test PRIVATE LINKER:--wrap=close LINKER:--wrap=write
                    LINKER:--wrap=strerror)
gtest_discover_tests(scripted_test TEST_PREFIX "Scripted" PROPERTIES TIMEOUT 60 DISCOVERY_TIMEOUT
                                                                     60)
set_property(GLOBAL APPEND PROPERTY TOVIK_TEST_SOURCES ${scripted_tests})
