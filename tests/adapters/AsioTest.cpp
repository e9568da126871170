// Compiled for each of the two Asios.
#include "tests/adapters/AsioHost.h"

#include "tests/adapters/LoopSuite.h"

namespace {

#ifdef TOVIK_HOST_ASIO
#define ASIO_TESTS AsioAdapter
using Adapted = Kelvo::Adapters::Asio;
using IoContext = asio::io_context;
#else
#define ASIO_TESTS BoostAsioAdapter
using Adapted = Kelvo::Adapters::BoostAsio;
using IoContext = boost::asio::io_context;
#endif

INSTANTIATE_TYPED_TEST_SUITE_P(ASIO_TESTS, Adapter, AsioHost, Numbered);

TEST(ASIO_TESTS, MayOutliveItsHost) {
  auto host = std::make_unique<IoContext>();
  const auto waiting = std::make_unique<Adapted>(*host);
  CallingTimer timer([&] { host->stop(); });
  timer.arm(0);
  host->run();
  host.reset();
}

TEST(ASIO_TESTS, MayOutliveItsHostAfterACallbackHasThrown) {
  auto host = std::make_unique<IoContext>();
  const auto waiting = std::make_unique<Adapted>(*host);
  CallingTimer timer([] { throw std::runtime_error("mine"); });
  timer.arm(0);
  EXPECT_THROW(host->run(), std::runtime_error);
  host.reset();
}

TEST(ASIO_TESTS, LeavesNothingToAHostThatIsDestroyedNext) {
  CallingTimer timer([] { Kelvo::Platform::EventLoop::current().stop(); });
  const auto before = openDescriptors();
  {
    IoContext host;
    const Adapted adapter(host);
  }
  EXPECT_EQ(openDescriptors(), before);
  timer.arm(0);
  Kelvo::Platform::EventLoop::current().run();
}

}  // namespace
