# One suite on every adapter whose host is installed.
function(tovik_adapter_test host source)
  if(TARGET tovik_host_${host})
    tovik_test(adapter_${host}_test ${source})
    target_link_libraries(adapter_${host}_test PRIVATE tovik_host_${host})
  else()
    tovik_missing_test(adapters.${host})
    set_property(GLOBAL APPEND PROPERTY TOVIK_TEST_SOURCES ${source})
  endif()
endfunction()

tovik_adapter_test(poll adapters/PollTest.cpp)
tovik_adapter_test(sd_event adapters/SdEventTest.cpp)
tovik_adapter_test(glib adapters/GLibTest.cpp)
tovik_adapter_test(uv adapters/UvTest.cpp)
tovik_adapter_test(asio adapters/AsioTest.cpp)
tovik_adapter_test(boost_asio adapters/AsioTest.cpp)
tovik_adapter_test(qt adapters/QtTest.cpp)
# The examples of adapters that an application writes itself.
tovik_adapter_test(libevent adapters/LibeventTest.cpp)
tovik_adapter_test(libev adapters/LibevTest.cpp)
tovik_adapter_test(wayland adapters/WaylandTest.cpp)

# Measures; run in short, it shows that there is something to measure.
get_property(hosts GLOBAL PROPERTY TOVIK_HOSTS)
add_executable(adapter_cost adapters/Cost.cpp)
target_link_libraries(adapter_cost PRIVATE tovik_test_flags Tovik)
target_include_directories(adapter_cost PRIVATE ${PROJECT_SOURCE_DIR})
foreach(host IN LISTS hosts)
  target_link_libraries(adapter_cost PRIVATE tovik_host_${host})
endforeach()
add_test(NAME adapters.CostCanBeMeasured COMMAND adapter_cost 2 20)
set_tests_properties(adapters.CostCanBeMeasured PROPERTIES TIMEOUT 60)

# The installed headers, as an application compiles them: with pkg-config, each alone. The prefix is
# what the package's first test installs.
find_package(Python3 REQUIRED COMPONENTS Interpreter)
string(REPLACE ";" "," hosts "${hosts}")
add_test(NAME adapters.InstalledHeadersCompileAlone
         COMMAND ${Python3_EXECUTABLE} -B ${CMAKE_CURRENT_LIST_DIR}/installed.py
                 --prefix ${CMAKE_CURRENT_BINARY_DIR}/package/prefix
                 --libdir ${CMAKE_INSTALL_LIBDIR} --compiler ${CMAKE_CXX_COMPILER}
                 --hosts ${hosts})
set_tests_properties(adapters.InstalledHeadersCompileAlone PROPERTIES FIXTURES_REQUIRED
                                                                      package_prefix TIMEOUT 300)
