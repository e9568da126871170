// Records into a proxy with calls in flight and a topic that it follows. Nothing ends the process,
// and every call ends exactly once.

#include "Api/Service/Proxy.h"

#include <array>
#include <chrono>
#include <optional>

#include "fuzz/Support.h"

using namespace fuzz;

namespace {

constexpr int kCalls = 4;  // the last one is the subscription's own

class Conversation {
 public:
  Conversation() {
    Tovik::ProxyOptions options;
    options.reconnectInterval = 1 << 30;  // once is enough
    proxy_.emplace(listener().name, options);
    while (!proxy_->isConnected()) {  // by a timer, which the kernel may take a moment for
      Kelvo::Platform::EventLoop::current().runOnce(std::chrono::seconds(1));
    }
    turnUntilIdle();
    server_ = listener().accept();
    for (std::size_t i = 0; i + 1 < kCalls; ++i) {
      proxy_->call(Tovik::object("command", "x"), Tovik::Proxy::Seconds(1e6), counting(i));
    }
    proxy_->subscribe(
        "t",
        [](const Tovik::Message& event) {
          require(Tovik::get<std::string>(event, "topic") == "t", "an event of another topic");
        },
        counting(kCalls - 1));
    proxy_->onMessage([this](const Tovik::Message& message) {
      require(message.IsObject(), "a message that is no object");
      proxy_->unsubscribe("t");
    });
  }

  void run(std::string_view input) {
    for (const Batch& batch : batchesOf(input)) {
      sendBatch(server_.get(), batch);
      turnUntilIdle();
      while (rawReceiveNow(server_.get()).front() == '{') {
      }
      if (!proxy_->isConnected()) {
        break;
      }
    }
    proxy_.reset();
    for (const int end : ends_) {
      require(end == 1, "a call has ended " + std::to_string(end) + " times");
    }
  }

 private:
  Tovik::Proxy::Callback counting(std::size_t call) {
    return [this, call](Tovik::Outcome outcome) {
      require(ends_[call] == 0, "an outcome after the end");
      require(outcome.error.empty() == (outcome.status == 0), "an error without a text");
      ends_[call] += outcome.more ? 0 : 1;
    };
  }

  std::array<int, kCalls> ends_{};
  Fd server_;
  std::optional<Tovik::Proxy> proxy_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  return converse<Conversation>(data, size);
}
