#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Api/Json/Client.h"
#include "Api/Json/Server.h"
#include "Kelvo/Platform/Debug.h"
#include "Kelvo/Platform/EventLoop.h"
#include "Kelvo/ThreadControl.h"
#include "tests/tovik/Peers.h"

using Kelvo::Platform::EventLoop;

namespace {

constexpr int kThreads = 4;
constexpr int kMessages = 200;

Tovik::Server makeCountingServer(const std::string& name, std::atomic<int>& handled) {
  return Tovik::Server(
      name,
      [&handled](Tovik::Connection& client, const Tovik::Message&) {
        ++handled;
        client.acknowledge(5);
      },
      admitAll);
}

/// A thread that runs a server on a loop of its own until it is told to stop from outside.
class ServerThread {
 public:
  ServerThread()
      : thread_([this] {
          const auto server = makeCountingServer(name_, handled_);
          loop_ = &EventLoop::current();
          EventLoop::current().run();
        }) {
    while (loop_ == nullptr) {
      std::this_thread::yield();
    }
  }
  ServerThread(const ServerThread&) = delete;
  ServerThread& operator=(const ServerThread&) = delete;
  ~ServerThread() {
    loop_.load()->stop();
    thread_.join();
  }

  const std::string& name() const { return name_; }
  int handled() const { return handled_; }

 private:
  const std::string name_ = uniqueName();
  std::atomic<int> handled_{0};
  std::atomic<EventLoop*> loop_{nullptr};
  std::thread thread_;
};

/// Calls so often, and counts the right answers.
int callRepeatedly(const std::string& name) {
  const Tovik::Client client(name);
  int answered = 0;
  for (int i = 0; i < kMessages; ++i) {
    answered += client.sendMsg(parsed(R"({"do":"it"})"), true) == 5 ? 1 : 0;
  }
  return answered;
}

}  // namespace

TEST(Threads, EachWithItsOwnLoopServeBlockingClientsInOtherThreads) {
  std::vector<std::unique_ptr<ServerThread>> servers;
  std::vector<std::thread> clients;
  std::atomic<int> answered{0};
  for (int i = 0; i < kThreads; ++i) {
    servers.push_back(std::make_unique<ServerThread>());
    clients.emplace_back(
        [&answered, name = servers.back()->name()] { answered += callRepeatedly(name); });
  }
  for (auto& client : clients) {
    client.join();
  }
  EXPECT_EQ(answered, kThreads * kMessages);
  for (const auto& server : servers) {
    EXPECT_EQ(server->handled(), kMessages);
  }
}

TEST(Threads, SetSinksWhileOthersLog) {
  using namespace Kelvo::Platform;
  const std::string channel = uniqueName();
  RawDebugHandler* const handler = _getRawDebugHandler(channel, true);
  std::atomic<int> records{0};
  setDebugSink(channel, [&records](const DebugRecord&) { ++records; });
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      for (int round = 0; round < kMessages; ++round) {
        DebugStream stream;
        handler->output(stream, 0, "file", "function", round);
        const auto sink = std::make_shared<std::atomic<int>>(0);
        setDebugSink(channel, [&records, sink](const DebugRecord&) {
          ++*sink;
          ++records;
        });
        _getRawDebugHandler(channel + std::to_string((i + round) % 20), false)->setMask(0);
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  setDebugSink(channel, nullptr);
  EXPECT_EQ(records, kThreads * kMessages);
}

TEST(Threads, ShareOneServerThroughClientsOfTheirOwn) {
  const ServerThread server;
  std::vector<std::thread> clients;
  std::atomic<int> answered{0};
  for (int i = 0; i < kThreads; ++i) {
    clients.emplace_back([&] { answered += callRepeatedly(server.name()); });
  }
  for (auto& client : clients) {
    client.join();
  }
  EXPECT_EQ(answered, kThreads * kMessages);
  EXPECT_EQ(server.handled(), kThreads * kMessages);
}

TEST(Threads, RunAsynchronousClientsOnLoopsOfTheirOwn) {
  const ServerThread server;
  std::vector<std::thread> threads;
  std::atomic<int> answered{0};
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      int replies = 0;
      const Tovik::AsyncClient client(
          server.name(),
          [&](Tovik::AsyncClient& self, const Tovik::Message&) {
            if (++replies < kMessages) {
              self.asyncSendMsg(parsed(R"({"do":"it"})"));
            }
          },
          [](Tovik::AsyncClient& self) { self.asyncSendMsg(parsed(R"({"do":"it"})")); }, 1);
      turnUntil([&] { return replies == kMessages; });
      answered += replies;
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(answered, kThreads * kMessages);
}

TEST(Threads, MayChangeTheEnabledLevelsWhileOthersLog) {
  std::atomic<int> records{0};
  {
    const LogSink sink(0, [&](const auto&) { ++records; });
    const ServerThread server;
    std::atomic<bool> done{false};
    std::thread switcher([&] {
      for (unsigned mask = 0; !done; mask = (mask + 1) & 0xF) {
        Kelvo::Platform::setDebugLevels("Tovik", mask);
      }
      Kelvo::Platform::setDebugLevels("Tovik", 0xF);
    });
    EXPECT_EQ(callRepeatedly(server.name()), kMessages);
    done = true;
    switcher.join();
    EXPECT_EQ(callRepeatedly(server.name()), kMessages);
  }
  EXPECT_GT(records, kMessages);
}

namespace {

struct CountedObject : Kelvo::Counted {
  explicit CountedObject(std::atomic<int>& destroyed) : destroyed_(destroyed) {}
  CountedObject(const CountedObject&) = delete;
  CountedObject& operator=(const CountedObject&) = delete;
  ~CountedObject() override { ++destroyed_; }

 private:
  std::atomic<int>& destroyed_;
};

}  // namespace

TEST(Threads, ShareCountedHandlesOnceTheFlagIsSet) {
  Kelvo::ThreadControl::tsp_ = true;
  std::atomic<int> destroyed{0};
  {
    const Kelvo::Ptr<CountedObject> shared(new CountedObject(destroyed));
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([copy = shared] {
        for (int round = 0; round < 10000; ++round) {
          const Kelvo::Ptr<CountedObject> another = copy;
        }
      });
    }
    for (auto& thread : threads) {
      thread.join();
    }
    EXPECT_EQ(destroyed, 0);
  }
  EXPECT_EQ(destroyed, 1);
}
