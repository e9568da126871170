#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/tovik/ClientSupport.h"

// What the tests of the asynchronous client share.

using Lines = std::vector<std::string>;

/// The asynchronous client, with its descriptor and its terminations to be seen.
class WatchedClient : public Tovik::AsyncClient {
 public:
  using Tovik::AsyncClient::AsyncClient;

  void terminateConnection() override {
    ++terminations_;
    Tovik::AsyncClient::terminateConnection();
  }

  int terminations() const { return terminations_; }
  int descriptor() const { return isAttached() ? fdControl_->fd() : -1; }
  std::size_t queued() const { return sendQueue_.size(); }

 private:
  int terminations_ = 0;
};

inline std::string terminated(int fd) {
  return "1 Api/Json/Async terminateConnection: AsyncSender::terminateConnection(): fd = " +
         std::to_string(fd);
}

const std::string kAttempt = "3 Api/Json/Client timeout: AsyncClient::timeout()";

/// One turn of the loop, which waits for something to deliver.
inline void nextTurn() {
  Kelvo::Platform::EventLoop::current().runOnce(std::chrono::seconds(10));
}

/// Turns enough for anything that is due, and for what becomes due within some milliseconds.
inline void turnForAWhile() {
  for (int i = 0; i < 10; ++i) {
    Kelvo::Platform::EventLoop::current().runOnce(std::chrono::milliseconds(1));
  }
}

/// Makes clients that note what their handlers get. Nothing is connected yet.
class AsyncClient : public testing::Test {
 protected:
  static constexpr int kNever = 3600;  // an interval that no test waits for

  AsyncClient() { Kelvo::Platform::EventLoop::current(); }

  WatchedClient& make(int interval) {
    client_ = std::make_unique<WatchedClient>(
        server_.name(),
        [this](Tovik::AsyncClient& client, const Tovik::Message& msg) {
          EXPECT_EQ(&client, client_.get());
          messages_.push_back(compact(msg));
          if (onMessage_) {
            onMessage_();
          }
        },
        [this](Tovik::AsyncClient& client) {
          EXPECT_EQ(&client, client_.get());
          ++connects_;
          if (onConnect_) {
            onConnect_();
          }
        },
        interval);
    return *client_;
  }

  /// Makes a client and has it connected.
  WatchedClient& connect(int interval = kNever) {
    make(interval);
    nextTurn();
    EXPECT_EQ(connects_, 1);
    peer_ = server_.accept();
    log_.clear();
    return *client_;
  }

  void send(const std::string& text) { client_->asyncSendMsg(parsed(text)); }

  RawServer server_;
  Fd peer_;
  CapturedLog log_;
  std::unique_ptr<WatchedClient> client_;
  std::vector<std::string> messages_;
  int connects_ = 0;
  std::function<void()> onMessage_;
  std::function<void()> onConnect_;
};
