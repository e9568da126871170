# The base library.
tovik_test(kelvo_string_test kelvo/StringTest.cpp)
tovik_test(kelvo_ptr_test kelvo/PtrTest.cpp)
tovik_test(kelvo_channel_memory_test kelvo/ChannelMemoryTest.cpp)
tovik_test(kelvo_debug_test kelvo/DebugTest.cpp)
tovik_test(kelvo_event_loop_test kelvo/EventLoopTest.cpp)
tovik_test(kelvo_callback_test kelvo/CallbackTest.cpp)
tovik_test(kelvo_loop_test kelvo/LoopTest.cpp)
tovik_test(kelvo_post_test kelvo/PostTest.cpp)
tovik_test(kelvo_timer_test kelvo/TimerTest.cpp)
tovik_test(kelvo_fork_test kelvo/ForkTest.cpp)
tovik_test(kelvo_deferred_event_test kelvo/DeferredEventTest.cpp)
tovik_test(kelvo_refused_page_test kelvo/RefusedPageTest.cpp)

if(TOVIK_SANITIZE) # whose instrumentation makes GCC see false alarms in <regex>
  target_compile_options(kelvo_debug_test
                         PRIVATE $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
endif()
