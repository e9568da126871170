# Random conversations on the library and on a model of it. Each run takes another seed; a
# difference comes with the command that repeats it.
add_executable(model_test model/Model.cpp model/VirtualClock.cpp model/World.cpp
                          support/Support.cpp)
target_include_directories(model_test PRIVATE ${PROJECT_SOURCE_DIR})
target_link_libraries(model_test PRIVATE tovik_test_flags Tovik Kelvo GTest::gtest)
# The libraries are to find the program's clock.
target_link_options(model_test PRIVATE LINKER:--export-dynamic)
add_test(NAME model COMMAND model_test 100000)
set_tests_properties(model PROPERTIES TIMEOUT 300)
