// Records into a server's connection. If the first byte is a 1, the peer closes its end right after
// the last batch, so that answers meet a peer that is gone; otherwise it waits for them.

#include "Api/Json/Connection.h"

#include "fuzz/Reader.h"
#include "fuzz/Support.h"

using namespace fuzz;

namespace {

class Conversation {
 public:
  /// The connection is the model's: alive until it should be dead.
  Conversation()
      : fd_(sockets_.first.release()),
        connection_(fd_, [this](auto& connection, const auto& message) {
          handled_ = Tovik::Message::toStr(message, false).data();
          connection.acknowledge(++status_);
        }) {}

  void run(std::string_view input) {
    const bool hastyPeer = takeMark(input);
    const auto batches = batchesOf(input);
    for (std::size_t i = 0; i < batches.size() && alive_ && !stopped_; ++i) {
      sendBatch(sockets_.second.get(), batches[i]);
      if (hastyPeer && i + 1 == batches.size()) {
        closePeer();
      }
      for (Batch waiting = batches[i]; !waiting.empty() && alive_ && !stopped_;) {
        turn(takeText(waiting));
      }
    }
    if (alive_ && !stopped_) {
      closePeer();
      turn("");
    }
    require(stopped_ || !connection_.isAttached(), "the end was not seen");
  }

 private:
  void closePeer() {
    sockets_.second.reset();
    peerOpen_ = false;
  }

  /// One turn of the loop, which delivers one event, which is one text.
  void turn(const std::string& text) {
    const Text seen = read(text);
    if (seen.huge) {
      stopped_ = true;
      return;
    }
    handled_ = "<nothing>";
    const auto stop = stoppedBy([] { Kelvo::Platform::EventLoop::current().dispatch(); });
    predict(text, seen);
    requireEqual(stop, stop_, "the assertion");
    log_.expect(expectedLog_);
    expectedLog_.clear();
    require((handled_ != "<nothing>") == expectHandler_, "the handler, for " + text);
    require(!expectHandler_ || read(handled_) == seen, "the message, for " + text);
    require(connection_.isAttached() == alive_, "whether the connection lives");
    expectReply();
  }

  void predict(const std::string& text, const Text& seen) {
    expectHandler_ = false;
    stop_.clear();
    reply_ = alive_ && peerOpen_ ? "<nothing>" : "";
    log("2 readFdEvent: Connection::readFdEvent(): fd = " + std::to_string(fd_));
    if (text.empty()) {
      return predictEnd();
    }
    log("3 readFdEvent: msg = '" + text + "'");
    switch (atServer(seen)) {
      case AtServer::kInvalid:
        return log("0 readFdEvent: Connection::readFdEvent(): Invalid JSON message");
      case AtServer::kStops:
        stopped_ = true;
        stop_ = failedCondition(seen);
        return;
      case AtServer::kSwallowed:
        return;
      case AtServer::kSwitchOn:
        return predictSwitch(true);
      case AtServer::kSwitchOff:
        return predictSwitch(false);
      case AtServer::kHandled:
        expectHandler_ = true;
        return predictReply(status_);
    }
  }

  void predictSwitch(bool on) {
    predictReply(0);
    log("1 handleNotifMsg: Connection::readFdEvent(): Client (fd = " +
        std::to_string(alive_ ? fd_ : -1) + ") notification: " + std::to_string(subscribed_) +
        " -> " + std::to_string(on));
    subscribed_ = on;
  }

  void predictReply(unsigned status) {
    if (subscribed_) {
      return;
    }
    const std::string text = R"({"type":"reply","status":)" + std::to_string(status) + "}";
    log("3 asyncSendMsg: AsyncSender::asyncSendMSg() -> " + text);
    log("2 flushQueue: AsyncSender::flushQueue(), queue size = 1");
    if (!peerOpen_) {
      return predictEnd();
    }
    reply_ = text;
  }

  void predictEnd() {
    alive_ = false;
    log("1 terminateConnection: AsyncSender::terminateConnection(): fd = " + std::to_string(fd_));
  }

  /// What the peer gets of this turn. At its own end it has read everything, so there is no reset.
  void expectReply() {
    if (!peerOpen_) {
      return;
    }
    if (!alive_) {
      const auto end = rawReceiveNow(sockets_.second.get());
      return require(end == "<end>" || end == "<error>", "no end at the peer, but " + end);
    }
    requireEqual(rawReceiveNow(sockets_.second.get()), reply_, "the reply");
    require(reply_ == "<nothing>" || rawReceiveNow(sockets_.second.get()) == "<nothing>",
            "a second reply");
  }

  void log(const std::string& line) { expectedLog_.push_back(line); }

  std::pair<Fd, Fd> sockets_ = nonBlockingPair();
  const int fd_;
  Log log_;
  std::string handled_;
  unsigned status_ = 0;
  Tovik::Connection connection_;

  // The model.
  bool alive_ = true;
  bool stopped_ = false;
  bool peerOpen_ = true;
  bool subscribed_ = false;
  bool expectHandler_ = false;
  std::string stop_, reply_;
  std::vector<std::string> expectedLog_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  return converse<Conversation>(data, size);
}
