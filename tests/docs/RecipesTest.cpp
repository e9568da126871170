// The recipes' C++, as it stands in the guide, at work.

#include "recipes.h"  // made from the guide

#include <gtest/gtest.h>
#include <linux/close_range.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <functional>
#include <future>
#include <iterator>
#include <thread>

#include "tests/support/Support.h"

using namespace std::chrono_literals;

namespace {

bool anyone(int /*pid*/, unsigned /*uid*/, unsigned /*gid*/) {
  return true;
}

void ignore(Tovik::Connection& /*client*/, const Tovik::Message& /*msg*/) {}

/// Ends a child when the test does.
class Child {
 public:
  explicit Child(pid_t pid) : pid_(pid) {}
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }
  /// How it has ended by itself.
  int status() {
    int status = -1;
    waitpid(std::exchange(pid_, -1), &status, 0);
    return status;
  }

 private:
  pid_t pid_;
};

class Recipe : public testing::Test {
 protected:
  /// What a blocking client brings back while this thread's loop serves it.
  template <class Work>
  auto onAnotherThread(Work work) {
    auto result = std::async(std::launch::async, work);
    EXPECT_TRUE(turnUntil([&] { return result.wait_for(0s) == std::future_status::ready; }));
    return result.get();
  }

  const std::string name_ = uniqueName();
};

/// Children take descriptors along, so these tests look whether the server's name is free again.
class RecipeForChildren : public Recipe {
 protected:
  /// A server lives while `start` runs.
  bool nameIsFreeAfter(const std::function<void()>& start) {
    {
      const Tovik::Server server(name_, ignore, anyone);
      start();
    }
    try {
      const Tovik::Server server(name_, ignore, anyone);
      return true;
    } catch (const Tovik::SocketException&) {
      return false;
    }
  }

  std::array<char*, 4> shell(const char* command) {
    return {const_cast<char*>("sh"), const_cast<char*>("-c"), const_cast<char*>(command), nullptr};
  }
};

/// A server that keeps a sum.
class Adder {
 public:
  Adder(const std::string& name, int sum)
      : server_(
            name, [this](auto& client, const auto& msg) { take(client, msg); }, anyone),
        sum_(sum) {}

  void add(int number) {
    sum_ += number;
    server_.notifyClients(parsed("{\"added\":" + std::to_string(number) + "}"));
  }

  int addBeforeAnswering = 0;

 private:
  void take(Tovik::Connection& client, const Tovik::Message& /*get*/) {
    add(addBeforeAnswering);
    client.sendMsg(parsed("{\"sum\":" + std::to_string(sum_) + "}"));
  }

  Tovik::Server server_;
  int sum_;
};

TEST_F(Recipe, ACallWithinATimeReturnsTheStatus) {
  const Tovik::Server server(
      name_, [](auto& client, auto&) { client.acknowledge(7); }, anyone);
  EXPECT_EQ(callWithin(10s, name_.c_str(), parsed("{}")), 7U);
}

TEST_F(Recipe, ACallWithoutAnAnswerEndsWhenItsTimeIsUp) {
  const Tovik::Server server(name_, ignore, anyone);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(callWithin(50ms, name_.c_str(), parsed("{}")), std::nullopt);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, 50ms);
}

TEST_F(Recipe, ACallIsNotMadeAgainAfterALoss) {
  int calls = 0;
  int connections = 0;
  const Tovik::Server server(
      name_,
      [&](Tovik::Connection& client, auto&) {
        ++calls;
        client.terminateConnection();
      },
      [&](int, unsigned, unsigned) {
        ++connections;
        return true;
      });
  EXPECT_EQ(callWithin(1200ms, name_.c_str(), parsed("{}")), std::nullopt);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(connections, 2);
}

TEST_F(Recipe, AValueIsAskedForAndAnswered) {
  const std::map<std::string, std::string> values{{"colour", "\"red\"\n"}};
  const Tovik::Server server(
      name_, [&](auto& client, const auto& msg) { answer(client, msg, values); }, anyone);
  const auto asked = [this](const std::string& name) {
    return onAnotherThread([&] { return ask(Tovik::Client(name_), name); });
  };
  EXPECT_EQ(asked("colour"), "\"red\"\n");
  EXPECT_EQ(asked("size"), std::nullopt);
}

/// A server that acknowledges, and clients with a hundred records each.
class RecipeForManyRecords : public Recipe {
 protected:
  std::vector<Tovik::Message> hundred() {
    std::vector<Tovik::Message> messages;
    std::generate_n(std::back_inserter(messages), 100, [] { return parsed("{}"); });
    return messages;
  }

  int handled_ = 0;
  int status_ = 0;
  const Tovik::Server server_{name_,
                              [this](auto& client, auto&) {
                                ++handled_;
                                client.acknowledge(static_cast<unsigned>(status_));
                              },
                              anyone};
};

TEST_F(RecipeForManyRecords, AreAllHandledIfTheRepliesAreRead) {
  for (int client = 0; client < 20; ++client) {
    EXPECT_TRUE(onAnotherThread([&] { return sendAll(Tovik::Client(name_), hundred()); }));
  }
  EXPECT_EQ(handled_, 2000);
}

TEST_F(RecipeForManyRecords, AreLostIfTheClientClosesWithRepliesUnread) {
  {
    const Tovik::Client client(name_);
    for (const auto& msg : hundred()) {
      ASSERT_EQ(client.sendMsg(msg, false), 0);
    }
    ASSERT_TRUE(turnUntil([&] { return handled_ > 0; }));
  }
  turnUntilIdle();
  EXPECT_LT(handled_, 100);
}

TEST_F(RecipeForManyRecords, AreNoSuccessIfOneIsRefused) {
  status_ = 1;
  EXPECT_FALSE(onAnotherThread([&] { return sendAll(Tovik::Client(name_), hundred()); }));
  EXPECT_EQ(handled_, 100);
}

TEST_F(Recipe, WorkInTheBackgroundEndsOnTheLoopsThread) {
  const auto here = std::this_thread::get_id();
  std::thread::id worked;
  std::thread::id done;
  int result = 0;
  std::thread thread = inBackground(
      [&] {
        worked = std::this_thread::get_id();
        return 42;
      },
      [&](int found) {
        done = std::this_thread::get_id();
        result = found;
      });
  EXPECT_TRUE(turnUntil([&] { return result != 0; }));
  thread.join();
  EXPECT_EQ(result, 42);
  EXPECT_EQ(done, here);
  EXPECT_NE(worked, here);
}

TEST_F(Recipe, AMirrorMissesNoChangeAndCountsNoneTwice) {
  auto adder = std::make_unique<Adder>(name_, 10);
  adder->addBeforeAnswering = 5;  // told between the subscription and the snapshot
  const Mirror mirror(name_.c_str());
  EXPECT_EQ(mirror.sum(), std::nullopt);
  ASSERT_TRUE(turnUntil([&] { return mirror.sum().has_value(); }));
  EXPECT_EQ(mirror.sum(), 15);
  adder->add(2);
  turnUntilIdle();
  EXPECT_EQ(mirror.sum(), 17);
  adder.reset();
  ASSERT_TRUE(turnUntil([&] { return !mirror.sum().has_value(); }));
  adder = std::make_unique<Adder>(name_, 3);
  ASSERT_TRUE(turnUntil([&] { return mirror.sum().has_value(); }));
  EXPECT_EQ(mirror.sum(), 3);
}

/// A server with connected clients, most of them subscribed.
class RecipeForStalledReaders : public Recipe {
 protected:
  Fd subscriber(const std::string& name) {
    Fd client = rawConnect(name);
    rawSend(client.get(), R"({"command":"set","notification":true})");
    EXPECT_TRUE(turnUntil([&] { return rawReceiveNow(client.get()) != "<nothing>"; }));
    return client;
  }

  /// Enough to fill a socket that is read by nobody, and to leave one alone that is read.
  void broadcast(Tovik::Server& server) {
    for (int count = 0; count < 200; ++count, ++told_) {
      server.notifyClients(parsed("{}"));
    }
  }

  /// How many there were until `end` comes.
  int readUntil(const std::string& end, const Fd& client) {
    int count = 0;
    std::string last = rawReceiveNow(client.get());
    for (; last == "{}"; last = rawReceiveNow(client.get())) {
      ++count;
    }
    EXPECT_EQ(last, end);
    return count;
  }

  int told_ = 0;
  Tovik::Server server_{name_, ignore, anyone};
};

TEST_F(RecipeForStalledReaders, AreCutOffAndNoOtherIs) {
  const StallWatch watch(name_, 0.05, 3);
  const Fd idle = rawConnect(name_);
  const Fd stalled = subscriber(name_);
  const Fd healthy = subscriber(name_);
  int read = 0;
  const CapturedLog log(0b10);
  ASSERT_TRUE(turnUntil([&] {
    broadcast(server_);
    read += readUntil("<nothing>", healthy);
    return !log.lines(1).empty();
  }));
  turnUntilIdle();
  EXPECT_LT(readUntil("<end>", stalled), told_) << "nothing has piled up";
  EXPECT_EQ(read, told_);
  EXPECT_EQ(readUntil("<nothing>", healthy), 0);
  EXPECT_EQ(readUntil("<nothing>", idle), 0);
}

TEST_F(RecipeForStalledReaders, AreSparedIfTheyCatchUpInTime) {
  StallWatch watch(name_, 3600, 3);
  const Fd client = subscriber(name_);
  int read = 0;
  for (const int looks : {2, 2}) {
    broadcast(server_);
    for (int look = 0; look < looks; ++look) {
      watch.timeout();
    }
    read += readUntil("<nothing>", client);
    watch.timeout();
  }
  EXPECT_EQ(read, told_);
}

TEST_F(RecipeForStalledReaders, AreSparedByAnotherServersWatch) {
  StallWatch watch(name_ + "-other", 3600, 1);
  const Fd client = subscriber(name_);
  broadcast(server_);
  watch.timeout();
  EXPECT_EQ(readUntil("<nothing>", client), told_);
}

TEST_F(Recipe, MembersOfAGroupAreAdmittedByItsName) {
  EXPECT_TRUE(members("root")(1, 1000, 0));
  EXPECT_FALSE(members("root")(1, 1000, 1000));
  EXPECT_FALSE(members("no such group")(1, 0, 0));
}

TEST_F(Recipe, RootIsAdmittedAlwaysAndMembersAtTheirRate) {
  const auto rule = rootAndMembers("root");
  EXPECT_FALSE(rule(1, 1000, 1000));
  int admitted = 0;
  while (admitted < 1000 && rule(1, 1000, 0)) {
    ++admitted;
  }
  EXPECT_GE(admitted, 20);
  EXPECT_LT(admitted, 1000);
  EXPECT_TRUE(rule(1, 0, 1000));
}

TEST_F(RecipeForChildren, AChildThatIsForkedKeepsTheName) {
  std::optional<Child> child;
  EXPECT_FALSE(nameIsFreeAfter([&] {
    const pid_t pid = fork();
    if (pid == 0) {
      execvp("sleep",
             std::array<char*, 3>{const_cast<char*>("sleep"), const_cast<char*>("60"), nullptr}
                 .data());
      _exit(127);
    }
    child.emplace(pid);
  }));
}

TEST_F(RecipeForChildren, AChildThatIsSpawnedDoesNot) {
  std::optional<Child> child;
  EXPECT_TRUE(nameIsFreeAfter([&] { child.emplace(spawn(shell("exec sleep 60").data())); }));
}

TEST_F(RecipeForChildren, AChildThatIsSpawnedHasSigpipeBack) {
  const auto before = std::signal(SIGPIPE, SIG_IGN);
  Child child(spawn(shell("grep -qE 'SigIgn:.*[02468ace][0-9a-f]{3}$' /proc/self/status").data()));
  EXPECT_EQ(child.status(), 0);
  std::signal(SIGPIPE, before);
}

TEST_F(RecipeForChildren, AProgramThatIsNotThereIsNotSpawned) {
  EXPECT_EQ(spawn(std::array<char*, 2>{const_cast<char*>("/no/such/program"), nullptr}.data()), -1);
}

TEST_F(RecipeForChildren, MarkedDescriptorsReachNoChildOfOthers) {
  pid_t pid = -1;
  EXPECT_TRUE(nameIsFreeAfter([&] {
    ASSERT_EQ(close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC), 0);
    FILE* const other = popen("sleep 60 >/dev/null & echo $!", "r");
    ASSERT_EQ(fscanf(other, "%d", &pid), 1);
    pclose(other);
  }));
  ASSERT_GT(pid, 0);
  EXPECT_EQ(kill(pid, SIGKILL), 0);
}

class RecipeForLargePayloads : public Recipe {
 protected:
  RecipeForLargePayloads() { std::filesystem::create_directory(folder_); }
  ~RecipeForLargePayloads() override { std::filesystem::remove_all(folder_); }

  const std::string folder_ = testing::TempDir() + name_;
};

TEST_F(RecipeForLargePayloads, AFileCarriesThem) {
  const std::string payload(100'000, '\0');
  std::optional<std::string> received;
  const Tovik::Server server(
      name_,
      [&](auto& client, const auto& msg) {
        received = readLarge(folder_, msg["payload"].GetString());
        client.acknowledge(received ? 0 : 1);
      },
      anyone);
  EXPECT_EQ(onAnotherThread([&] { return sendLarge(Tovik::Client(name_), folder_, payload); }), 0);
  EXPECT_EQ(received, payload);
  EXPECT_TRUE(std::filesystem::is_empty(folder_));
}

TEST_F(RecipeForLargePayloads, NoOtherFileIsRead) {
  std::ofstream(folder_ + "/secret") << "x";
  std::ofstream(folder_ + "/payload-1") << "y";
  std::filesystem::create_directory(folder_ + "/payload-folder");
  EXPECT_EQ(readLarge(folder_, "payload-1"), "y");
  EXPECT_EQ(readLarge(folder_, "secret"), std::nullopt);
  EXPECT_EQ(readLarge(folder_, "payload-folder/../secret"), std::nullopt);
  EXPECT_EQ(readLarge(folder_, "payload-2"), std::nullopt);
}

TEST_F(RecipeForLargePayloads, AMessageFitsUpTo4094Bytes) {
  const auto message = [](std::size_t size) {
    return parsed("{\"a\":\"" + std::string(size - 8, 'x') + "\"}");
  };
  EXPECT_TRUE(fits(message(4094)));
  EXPECT_FALSE(fits(message(4095)));
}

}  // namespace
