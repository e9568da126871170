#include "tool/Conversation.h"

#include <cerrno>

#include "Api/Json/Async.h"
#include "tool/Session.h"

namespace tool {

namespace {

/// How many records may wait for a side that does not read.
constexpr std::size_t kMostWaiting = 10000;

}  // namespace

class Conversation::Client : public Tovik::AsyncSender {
 public:
  Client(Conversation& conversation, int fd) : conversation_(conversation) { setFd(fd); }

  void pass(const std::string& text) {
    sendQueue_.emplace_back(text);
    flushQueue();
    if (sendQueue_.size() > kMostWaiting) {
      terminateConnection();
    }
  }

  /// Nothing waits to be written any more, or never will be.
  bool hasAll() const { return !isAttached() || sendQueue_.empty(); }

  void terminateConnection() override {
    const bool ended = isAttached();
    AsyncSender::terminateConnection();
    if (ended) {
      conversation_.end({Exit::kSuccess, "the client left, or does not read."});
    }
  }

 private:
  void readFdEvent(int fd) override {
    std::string record;
    const long length = readRecord(fd, record);
    if (length > 0) {
      return conversation_.toServer(record);
    }
    if (length != -EAGAIN && length != -EINTR) {
      AsyncSender::terminateConnection();
      conversation_.end({Exit::kSuccess, "the client left."});
    }
  }

  Conversation& conversation_;
};

class Conversation::Upstream : public Session {
 public:
  Upstream(Conversation& conversation, const Options& options)
      : Session(options.upstream, options), conversation_(conversation) {}

  void pass(const std::string& text) {
    sendQueue_.emplace_back(text);
    flushQueue();  // which waits for the connection
    if (sendQueue_.size() > kMostWaiting) {
      conversation_.serverLeft({Exit::kLost, "the server does not read; see what it does."});
    }
  }

  bool hasAll() const { return allWritten() && allTaken(); }

 private:
  void connected() override { flushQueue(); }
  void received(std::string record) override { conversation_.toClient(record); }
  void lost(int error) override {
    conversation_.serverLeft(error == 0 ? Failure(Exit::kSuccess, "the server left.")
                                        : lostFailure());
  }
  void notConnected(int error) override { conversation_.serverLeft(notConnectedFailure(error)); }

  Conversation& conversation_;
};

Conversation::Conversation(const Record& stamp, const Options& options, const Hooks& hooks,
                           int clientFd)
    : stamp_(stamp), hooks_(hooks) {
  if (clientFd >= 0) {
    client_ = std::make_unique<Client>(*this, clientFd);
  }
  upstream_ = std::make_unique<Upstream>(*this, options);
}

Conversation::~Conversation() = default;

void Conversation::toServer(const std::string& text) {
  if (!ended_ && passes(Direction::kToServer, text)) {
    upstream_->pass(text);
  }
}

void Conversation::toClient(const std::string& text) {
  if (!ended_ && passes(Direction::kToClient, text) && client_) {
    client_->pass(text);
  }
}

bool Conversation::passes(Direction direction, const std::string& text) const {
  Record record = stamp_;
  record.direction = direction;
  record.text = text;
  return hooks_.passes(std::move(record));
}

bool Conversation::serverHasAll() const {
  return serverGone_ || upstream_->hasAll();
}

bool Conversation::over() const {
  return ended_ && serverHasAll() && (!client_ || client_->hasAll());
}

void Conversation::serverLeft(const Failure& why) {
  serverGone_ = true;
  end(why);
}

void Conversation::end(const Failure& why) {
  if (!ended_) {
    ended_ = true;
    hooks_.ended(stamp_, why);
  }
}

}  // namespace tool
