# Services and proxies, on the real kernel.
tovik_test(service_test service/Lamp.cpp service/RequestTest.cpp service/ServiceTest.cpp service/TopicTest.cpp)
target_link_libraries(service_test PRIVATE TovikService)
tovik_test(object_test service/ObjectTest.cpp)
target_link_libraries(object_test PRIVATE TovikService)
