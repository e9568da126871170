// Compiled for each of the two Asios: one source cannot hold both, as they define the same global
// names.
#ifdef TOVIK_HOST_ASIO
#include <asio/post.hpp>

#include "Kelvo/Adapters/Asio.h"
#define ASIO_TESTS AsioAdapter
using Adapted = Kelvo::Adapters::Asio;
using IoContext = asio::io_context;
#else
#include <boost/asio/post.hpp>

#include "Kelvo/Adapters/BoostAsio.h"
#define ASIO_TESTS BoostAsioAdapter
using Adapted = Kelvo::Adapters::BoostAsio;
using IoContext = boost::asio::io_context;
#endif

#include "tests/adapters/LoopSuite.h"

namespace {

/// An `io_context`.
class AsioHost : public HostOf<Adapted> {
 public:
  ~AsioHost() { detach(); }

  void attach() { adapter_.emplace(context_); }
  void stop() { context_.stop(); }
  void soon(std::function<void()> function) { post(context_, std::move(function)); }
  void run() {
    context_.restart();
    context_.run();
  }
  void runByItself() { run(); }
  void turn(milliseconds atMost) {
    context_.restart();
    context_.run_one_for(atMost);
  }

 private:
  IoContext context_{1};
};

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
