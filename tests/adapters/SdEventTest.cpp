#include "Kelvo/Adapters/SdEvent.h"

#include "tests/adapters/LoopSuite.h"

namespace {

/// An sd-event loop. It does not run again after an exit, so a stopped one is replaced.
class SdEventHost : public HostOf<Kelvo::Adapters::SdEvent> {
 public:
  SdEventHost() { sd_event_new(&event_); }
  ~SdEventHost() {
    detach();
    sd_event_unref(event_);
  }

  void attach() { adapter_.emplace(event_); }
  void stop() { sd_event_exit(event_, 5); }

  void soon(std::function<void()> function) {
    sd_event_add_defer(
        event_, nullptr,
        [](sd_event_source*, void* data) {
          callAndDelete(data);
          return 0;
        },
        new std::function<void()>(std::move(function)));
  }

  void run() {
    exitCode = adapter_->run();
    renew();
  }

  void runByItself() {
    exitCode = sd_event_loop(event_);
    rethrow();
    renew();
  }

  void turn(milliseconds atMost) {
    sd_event_run(event_, static_cast<std::uint64_t>(atMost.count()) * 1000);
    rethrow();
  }

  int exitCode = 0;

 private:
  void renew() {
    const bool attached = adapter_.has_value();
    detach();
    sd_event_unref(event_);
    sd_event_new(&event_);
    if (attached) {
      attach();
    }
  }

  sd_event* event_ = nullptr;
};

INSTANTIATE_TYPED_TEST_SUITE_P(SdEventAdapter, Adapter, SdEventHost, Numbered);

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
