// The recipes' C++, as it stands in the guide, at work.

#include "recipes.h"  // made from the guide

#include <gtest/gtest.h>
#include <linux/close_range.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <filesystem>
#include <functional>
#include <future>
#include <iterator>
#include <thread>

#include "Api/Json/Server.h"
#include "tests/support/Support.h"

using namespace std::chrono_literals;
using Kelvo::Platform::EventLoop;

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

/// A server that answers only when it is told to.
class RecipeForAnsweringLater : public Recipe {
 protected:
  Fd ask() {
    Fd client = rawConnect(name_);
    rawSend(client.get(), "{}");
    const auto before = waiting_.size();
    EXPECT_TRUE(turnUntil([&] { return waiting_.size() > before; }));
    return client;
  }

  std::vector<Later> waiting_;
  Tovik::Server server_{
      name_, AnswersLater([this](const Later& client, auto&) { waiting_.push_back(client); }),
      anyone};
};

TEST_F(RecipeForAnsweringLater, EachGetsItsOwn) {
  const Fd first = ask();
  const Fd second = ask();
  waiting_[1].acknowledge(2);
  waiting_[0].acknowledge(1);
  turnUntilIdle();
  EXPECT_EQ(rawReceiveNow(first.get()), R"({"type":"reply","status":1})");
  EXPECT_EQ(rawReceiveNow(second.get()), R"({"type":"reply","status":2})");
}

TEST_F(RecipeForAnsweringLater, OneThatHasGoneIsLeftAlone) {
  ask().reset();
  const Fd staying = ask();
  turnUntilIdle();
  server_.freeDeadConnections();
  waiting_[0].acknowledge(1);
  waiting_[1].acknowledge(2);
  turnUntilIdle();
  EXPECT_EQ(rawReceiveNow(staying.get()), R"({"type":"reply","status":2})");
}

TEST_F(Recipe, ChangesArePublishedAtOnceAndThenAtTheirRate) {
  using Clock = std::chrono::steady_clock;
  int state = 0;
  std::vector<int> published;
  RateLimit limit(0.02, [&] { published.push_back(state); });
  const auto begin = Clock::now();
  for (state = 1; state < 4; ++state) {
    limit.changed();
  }
  EXPECT_EQ(published, std::vector{1});
  EXPECT_TRUE(turnUntil([&] { return published.size() == 2; }));
  EXPECT_EQ(published.back(), 4);
  EXPECT_GE(Clock::now() - begin, 20ms);
  EXPECT_TRUE(EventLoop::current().runOnce(10s));  // the time is over, and nothing has changed
  EXPECT_EQ(published.size(), 2U);
  limit.changed();
  EXPECT_EQ(published.size(), 3U);
}

TEST_F(Recipe, TheLoopStopsWhenADescriptorEnds) {
  auto [near, far] = rawPair();
  const UntilItEnds untilItEnds(near.get());
  rawSend(far.get(), "dropped");
  EXPECT_TRUE(EventLoop::current().runOnce(10s));
  far.reset();
  EventLoop::current().run();
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
