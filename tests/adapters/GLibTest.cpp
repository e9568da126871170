#include "tests/adapters/GLibHost.h"

#include "tests/adapters/LoopSuite.h"

INSTANTIATE_TYPED_TEST_SUITE_P(GLibAdapter, Adapter, GLibHost, Numbered);

namespace {

TEST(GLibAdapterAlone, IsServedWhileACallbackRunsALoopOfItsOwn) {
  GLibHost host;
  host.attach();
  GMainLoop* inner = g_main_loop_new(host.context(), FALSE);
  CallingTimer within([&] { g_main_loop_quit(inner); });
  CallingTimer outer([&] {
    within.arm(0);
    g_main_loop_run(inner);
    host.stop();
  });
  outer.arm(0);
  host.run();
  g_main_loop_unref(inner);
}

TEST(GLibAdapterAlone, StopsAnApplicationWithoutAMainLoopTheWayItSays) {
  GMainContext* context = g_main_context_new();
  bool stopped = false;
  {
    Kelvo::Adapters::GLib adapter(context, [&] { stopped = true; });
    CallingTimer throwing([] { throw std::runtime_error("mine"); });
    throwing.arm(0);
    while (!stopped) {
      g_main_context_iteration(context, TRUE);
    }
    EXPECT_THROW(adapter.rethrow(), std::runtime_error);
    EXPECT_NO_THROW(adapter.rethrow()) << "it is thrown once";
  }
  g_main_context_unref(context);
}

TEST(GLibAdapterAlone, MakesNoMoreTurnsUntilTheExceptionWasTaken) {
  GMainContext* context = g_main_context_new();
  int stopped = 0;
  {
    Kelvo::Adapters::GLib adapter(context, [&] { ++stopped; });
    CallingTimer throwing([] { throw std::runtime_error("mine"); });
    int fired = 0;
    CallingTimer other([&] { ++fired; });
    throwing.arm(0);
    other.arm(0);
    while (stopped < 3) {  // by a host that does not stop
      g_main_context_iteration(context, TRUE);
    }
    EXPECT_EQ(fired, 0);
    EXPECT_THROW(adapter.rethrow(), std::runtime_error);
    g_main_context_iteration(context, TRUE);
    EXPECT_EQ(fired, 1);
  }
  g_main_context_unref(context);
}

TEST(GLibAdapterAlone, MayOutliveItsHost) {
  GMainContext* context = g_main_context_new();
  GMainLoop* loop = g_main_loop_new(context, FALSE);
  const Kelvo::Adapters::GLib adapter(loop);
  g_main_context_iteration(context, FALSE);
  g_main_loop_unref(loop);
  g_main_context_unref(context);
}

}  // namespace
