# Random conversations on the library and on a model of it. Each run takes another seed and prints
# it; the long one is left out by ctest -LE long.
add_executable(model_test model/Model.cpp model/Servers.cpp model/VirtualClock.cpp model/World.cpp
                          model/main.cpp support/Support.cpp)
target_include_directories(model_test PRIVATE ${PROJECT_SOURCE_DIR})
target_link_libraries(model_test PRIVATE tovik_flags Tovik Kelvo GTest::gtest)
# The libraries are to find the program's clock.
target_link_options(model_test PRIVATE LINKER:--export-dynamic)
add_test(NAME model.Short COMMAND model_test --steps 20000)
set_tests_properties(model.Short PROPERTIES TIMEOUT 60)
add_test(NAME model.Long COMMAND model_test --steps 1000000)
set_tests_properties(model.Long PROPERTIES TIMEOUT 600 LABELS long)
