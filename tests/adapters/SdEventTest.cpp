#include "tests/adapters/SdEventHost.h"

#include "tests/adapters/LoopSuite.h"

INSTANTIATE_TYPED_TEST_SUITE_P(SdEventAdapter, Adapter, SdEventHost, Numbered);

namespace {

TEST(SdEventAdapterAlone, ReturnsTheHostsExitCode) {
  SdEventHost host;
  host.attach();
  CallingTimer timer([&] { host.stop(); });
  timer.arm(0);
  host.run();
  EXPECT_EQ(host.exitCode, 5);
}

TEST(SdEventAdapterAlone, ThrowsWhatSdEventRefuses) {
  EXPECT_THROW(Kelvo::Adapters::SdEvent(nullptr), Kelvo::Exception);
}

TEST(SdEventAdapterAlone, MakesARunOfTheApplicationsOwnExitAfterOneOfItsOwnHasThrown) {
  SdEventHost host;
  host.attach();
  CallingTimer throwing([] { throw std::runtime_error("mine"); });
  throwing.arm(0);
  EXPECT_THROW(host.run(), std::runtime_error);
  throwing.arm(0);
  EXPECT_THROW(host.runByItself(), std::runtime_error);
  EXPECT_EQ(host.exitCode, EXIT_FAILURE);
}

}  // namespace
