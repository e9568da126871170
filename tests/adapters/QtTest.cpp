#include "tests/adapters/QtHost.h"

#include "tests/adapters/LoopSuite.h"

INSTANTIATE_TYPED_TEST_SUITE_P(QtAdapter, Adapter, QtHost, Numbered);

namespace {

TEST(QtAdapterAlone, ReturnsTheApplicationsExitCode) {
  QtHost host;
  host.attach();
  CallingTimer timer([&] { host.stop(); });
  timer.arm(0);
  host.run();
  EXPECT_EQ(host.exitCode, 5);
}

}  // namespace
