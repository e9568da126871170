#include "tests/adapters/UvHost.h"

#include "tests/adapters/LoopSuite.h"

INSTANTIATE_TYPED_TEST_SUITE_P(UvAdapter, Adapter, UvHost, Numbered);

namespace {

TEST(UvAdapterAlone, RunsOnUntilItIsStoppedAndTellsThatHandlesAreLeft) {
  UvHost host;
  host.attach();
  int fired = 0;
  CallingTimer* again = nullptr;
  CallingTimer timer([&] {
    if (++fired < 3) {
      return again->arm(0.001);
    }
    host.stop();
  });
  again = &timer;
  timer.arm(0);
  host.run();
  EXPECT_EQ(fired, 3);
  EXPECT_NE(host.runResult, 0) << "the adapter's own";
}

TEST(UvAdapterAlone, LetsTheHostBeClosedAfterOneMoreTurn) {
  uv_loop_t loop;
  ASSERT_EQ(uv_loop_init(&loop), 0);
  { const Kelvo::Adapters::Uv adapter(&loop); }
  EXPECT_EQ(uv_run(&loop, UV_RUN_DEFAULT), 0);
  EXPECT_EQ(uv_loop_close(&loop), 0);
}

TEST(UvAdapterAlone, MayOutliveItsHostThatClosesWhateverItHas) {
  auto loop = std::make_unique<uv_loop_t>();
  ASSERT_EQ(uv_loop_init(loop.get()), 0);
  const auto adapter = std::make_unique<Kelvo::Adapters::Uv>(loop.get());
  uv_walk(
      loop.get(), [](uv_handle_t* handle, void*) { uv_close(handle, nullptr); }, nullptr);
  EXPECT_EQ(uv_run(loop.get(), UV_RUN_DEFAULT), 0);
  EXPECT_EQ(uv_loop_close(loop.get()), 0);
  loop.reset();
}

}  // namespace
