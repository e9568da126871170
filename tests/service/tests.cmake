# Services and proxies, on the real kernel.
add_library(tovik_service_test_support STATIC service/Lamp.cpp)
target_link_libraries(tovik_service_test_support PUBLIC tovik_test_support TovikService)

function(tovik_service_test program)
  tovik_test(${program} ${ARGN})
  target_link_libraries(${program} PRIVATE tovik_service_test_support)
endfunction()

tovik_service_test(object_test service/ObjectTest.cpp)
tovik_service_test(service_test service/RequestTest.cpp service/ServiceTest.cpp
                   service/TopicTest.cpp)
tovik_service_test(proxy_test service/CallTest.cpp service/CallsTest.cpp service/ProxyTest.cpp)
tovik_service_test(task_test service/TaskTest.cpp)
target_compile_features(task_test PRIVATE cxx_std_20)
tovik_service_test(conformance_test service/ConformanceTest.cpp)
target_compile_definitions(conformance_test
                           PRIVATE TOVIK_CONFORMANCE="${CMAKE_CURRENT_LIST_DIR}/conformance.json")
