#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Api/Json/Client.h"
#include "tests/support/Faults.h"
#include "tests/support/Support.h"

// What the tests of both clients share.

/// A server made of plain sockets, so that the client under test meets exactly the bytes and the
/// moments that a test wants.
class RawServer {
 public:
  explicit RawServer(std::string name = uniqueName())
      : name_(std::move(name)), listener_(rawListen(name_)) {}

  Kelvo::String name() const { return name_; }

  /// The server's end of the next client, waited for up to ten seconds.
  Fd accept() {
    EXPECT_TRUE(waits(10000)) << "no client has connected";
    return waits(0) ? Fd(::accept(listener_.get(), nullptr, nullptr)) : Fd();
  }

  /// Whether a client waits that has not been accepted.
  bool hasClient() const { return waits(0); }

  /// Nobody listens under the name any more, or somebody does again.
  void stop() { listener_.reset(); }
  void startAgain() { listener_ = rawListen(name_); }

 private:
  bool waits(int milliseconds) const {
    pollfd query{listener_.get(), POLLIN, 0};
    return ::poll(&query, 1, milliseconds) == 1;
  }

  const std::string name_;
  Fd listener_;
};

/// A blocking client and the server's end of its connection.
class ConnectedClient {
 protected:
  RawServer server_;
  Tovik::Client client_{server_.name()};
  Fd peer_ = server_.accept();
  CapturedLog log_;
};

/// Runs `action` on another thread once the thread that made this sleeps in the kernel, or after
/// ten seconds. So a test can show that a call blocks, and end its waiting.
class OnceThisThreadSleeps {
 public:
  explicit OnceThisThreadSleeps(std::function<void()> action)
      : thread_([path = "/proc/self/task/" + std::to_string(::gettid()) + "/stat",
                 run = std::move(action)] {
          const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
          while (!sleeps(path) && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::yield();
          }
          run();
        }) {}
  OnceThisThreadSleeps(const OnceThisThreadSleeps&) = delete;
  OnceThisThreadSleeps& operator=(const OnceThisThreadSleeps&) = delete;
  ~OnceThisThreadSleeps() { thread_.join(); }

 private:
  static bool sleeps(const std::string& path) {
    std::string line;
    std::getline(std::ifstream(path), line);
    const auto state = line.rfind(") ");
    return state != std::string::npos && line.compare(state, 3, ") S") == 0;
  }

  std::thread thread_;
};
