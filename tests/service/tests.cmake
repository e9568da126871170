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

# The C++ side of the conformance suite, which tests/python/test_conformance.py runs.
add_executable(conformance_peer service/ConformancePeer.cpp)
target_include_directories(conformance_peer PRIVATE ${PROJECT_SOURCE_DIR})
target_link_libraries(conformance_peer PRIVATE tovik_test_flags TovikService)
