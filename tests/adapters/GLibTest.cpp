#include "Kelvo/Adapters/GLib.h"

#include "tests/adapters/LoopSuite.h"

namespace {

/// A GLib main loop on a context of its own.
class GLibHost : public HostOf<Kelvo::Adapters::GLib> {
 public:
  ~GLibHost() {
    detach();
    g_main_loop_unref(loop_);
    g_main_context_unref(context_);
  }

  void attach() { adapter_.emplace(loop_); }
  void stop() { g_main_loop_quit(loop_); }
  void soon(std::function<void()> function) {
    callAfter(g_idle_source_new(), G_PRIORITY_DEFAULT, std::move(function));
  }
  void runByItself() {
    g_main_loop_run(loop_);
    rethrow();
  }

  void turn(milliseconds atMost) {
    GSource* limit =
        callAfter(g_timeout_source_new(static_cast<guint>(atMost.count())), G_PRIORITY_LOW, [] {});
    g_source_ref(limit);
    g_main_context_iteration(context_, TRUE);
    g_source_destroy(limit);
    g_source_unref(limit);
    rethrow();
  }

  GMainContext* context() { return context_; }

 private:
  GSource* callAfter(GSource* source, int priority, std::function<void()> function) {
    g_source_set_priority(source, priority);
    g_source_set_callback(
        source,
        [](gpointer data) -> gboolean {
          (*static_cast<std::function<void()>*>(data))();
          return G_SOURCE_REMOVE;
        },
        new std::function<void()>(std::move(function)),
        [](gpointer data) { delete static_cast<std::function<void()>*>(data); });
    g_source_attach(source, context_);
    g_source_unref(source);
    return source;
  }

  GMainContext* const context_ = g_main_context_new();
  GMainLoop* const loop_ = g_main_loop_new(context_, FALSE);
};

INSTANTIATE_TYPED_TEST_SUITE_P(GLibAdapter, Adapter, GLibHost, Numbered);

TEST(GLibAdapterAlone, IsServedWhileACallbackRunsALoopOfItsOwn) {
  GLibHost host;
  host.attach();
  g_autoptr(GMainLoop) inner = g_main_loop_new(host.context(), FALSE);
  CallingTimer within([&] { g_main_loop_quit(inner); });
  CallingTimer outer([&] {
    within.arm(0);
    g_main_loop_run(inner);
    host.stop();
  });
  outer.arm(0);
  host.run();
}

TEST(GLibAdapterAlone, StopsAnApplicationWithoutAMainLoopTheWayItSays) {
  g_autoptr(GMainContext) context = g_main_context_new();
  int stopped = 0;
  Kelvo::Adapters::GLib adapter(context, [&] { ++stopped; });
  CallingTimer throwing([] { throw std::runtime_error("mine"); });
  int fired = 0;
  CallingTimer other([&] { ++fired; });
  throwing.arm(0);
  other.arm(0);
  while (stopped < 3) {  // by a host that does not stop
    g_main_context_iteration(context, TRUE);
  }
  EXPECT_EQ(fired, 0) << "no more turns until the exception was taken";
  EXPECT_THROW(adapter.rethrow(), std::runtime_error);
  EXPECT_NO_THROW(adapter.rethrow()) << "it is thrown once";
  g_main_context_iteration(context, TRUE);
  EXPECT_EQ(fired, 1);
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
