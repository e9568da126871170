# What may be used from several threads, used so. Worth most under the thread sanitizer.
tovik_test(threads_test threads/ThreadsTest.cpp)
tovik_test(stack_test threads/StackTest.cpp)
tovik_test(thread_key_test threads/ThreadKeyTest.cpp)
