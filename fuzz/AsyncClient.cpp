// Records into the asynchronous client, which sends back what it understands. It has no use for
// assertions: whatever is JSON goes to its handler. After each end of the connection it is made to
// connect again.

#include <sys/socket.h>

#include "Api/Json/Client.h"
#include "fuzz/Reader.h"
#include "fuzz/Support.h"

using namespace fuzz;

namespace {

constexpr int kNever = 1 << 30;  // seconds: a client connects when the input says so

class Conversation {
 public:
  Conversation()
      : client_(
            listener().name,
            [this](auto& client, const auto& message) {
              handled_ = Tovik::Message::toStr(message, false).data();
              client.asyncSendMsg(message);
            },
            [this](auto&) { ++connections_; }, kNever) {}

  void run(std::string_view input) {
    for (const Batch& batch : batchesOf(input)) {
      if (server_.get() < 0) {
        connect();
      }
      sendBatch(server_.get(), batch);
      for (Batch waiting = batch; !waiting.empty() && server_.get() >= 0;) {
        if (!turn(takeText(waiting))) {
          return;
        }
      }
    }
    if (server_.get() >= 0) {
      ::shutdown(server_.get(), SHUT_RDWR);
      turn("");
    }
  }

 private:
  void connect() {
    const int before = connections_;
    client_.timeout();
    require(client_.isAttached() && connections_ == before + 1, "not connected");
    server_ = listener().accept();
    log_.expect({"3 timeout: AsyncClient::timeout()"});
  }

  /// False if nothing can be said of the text.
  bool turn(const std::string& text) {
    const Text seen = read(text);
    if (seen.huge) {
      return false;
    }
    handled_ = "<nothing>";
    const auto stop = stoppedBy([] { Kelvo::Platform::EventLoop::current().dispatch(); });
    requireEqual(stop, "", "the assertion");
    const bool expected = !text.empty() && seen.root != Text::Root::kNotJson;
    require((handled_ != "<nothing>") == expected, "the handler, for " + text);
    expectLog(text, expected);
    require(client_.isAttached() == !text.empty(), "whether the client is connected");
    if (text.empty()) {
      server_.reset();
      return true;
    }
    require(!expected || read(handled_) == seen, "the message, for " + text);
    requireEqual(rawReceiveNow(server_.get()), handled_, "what the client sends back");
    return true;
  }

  void expectLog(const std::string& text, bool handled) {
    const std::string received = "3 readFdEvent: AsyncClient::readFdEvent(): msg = '" + text + "'";
    if (text.empty()) {
      log_.expect({"1 terminateConnection: AsyncSender::terminateConnection(): fd = " +
                   std::to_string(server_.get() - 1)});
    } else if (handled) {
      log_.expect({received, "3 asyncSendMsg: AsyncSender::asyncSendMSg() -> " + handled_,
                   "2 flushQueue: AsyncSender::flushQueue(), queue size = 1"});
    } else {
      log_.expect({received, "0 readFdEvent: AsyncClient::readFdEvent(): Invalid JSON message"});
    }
  }

  Log log_;
  std::string handled_;
  int connections_ = 0;
  Tovik::AsyncClient client_;
  Fd server_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  return converse<Conversation>(data, size);
}
