# What may be used from several threads, used so. Worth most under the thread sanitizer.
tovik_test(threads_test threads/ThreadsTest.cpp)
