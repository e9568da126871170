// Functions that are posted to a loop, and requests to stop from threads that may outlast it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <optional>
#include <stdexcept>
#include <thread>
#include <vector>

#include "tests/kelvo/Handlers.h"

using Kelvo::Platform::EventLoop;
using testing::ElementsAre;

namespace {

class Posted : public testing::Test {
 protected:
  void post(int number) {
    loop().post([this, number] { ran_.push_back(number); });
  }

  std::vector<int> ran_;
};

TEST_F(Posted, RunsOnTheLoopsThreadInOrder) {
  std::thread::id where;
  std::thread([&, &mine = loop()] {
    mine.post([&] { where = std::this_thread::get_id(); });
    for (int i = 0; i < 10; ++i) {
      mine.post([this, i] { ran_.push_back(i); });
    }
    mine.post([&mine] { mine.stop(); });
  }).join();
  loop().run();

  EXPECT_EQ(where, std::this_thread::get_id());
  EXPECT_THAT(ran_, ElementsAre(0, 1, 2, 3, 4, 5, 6, 7, 8, 9));
}

TEST_F(Posted, WakesALoopThatWaits) {
  std::thread poster([&mine = loop()] {
    std::this_thread::yield();
    mine.post([&mine] { mine.stop(); });
  });
  loop().run();
  poster.join();
}

TEST_F(Posted, IsNeverLostAmongSeveralThreads) {
  constexpr int kEach = 2000;
  int ran = 0;
  std::vector<std::thread> posters;
  for (int i = 0; i < 4; ++i) {
    posters.emplace_back([&ran, remote = loop().remote()] {
      for (int posted = 0; posted < kEach; ++posted) {
        EXPECT_TRUE(remote.post([&ran] { ++ran; }));
      }
    });
  }
  EXPECT_TRUE(turnUntil([&] { return ran == 4 * kEach; }));
  for (auto& poster : posters) {
    poster.join();
  }
  EXPECT_FALSE(somethingIsDue());
}

TEST_F(Posted, RunsInALaterTurnIfAPostedFunctionPostsIt) {
  loop().post([this] { post(1); });
  EXPECT_TRUE(loop().dispatch());
  EXPECT_THAT(ran_, ElementsAre());
  EXPECT_TRUE(somethingIsDue());
  EXPECT_TRUE(loop().dispatch());
  EXPECT_THAT(ran_, ElementsAre(1));
  EXPECT_FALSE(somethingIsDue());
  EXPECT_FALSE(loop().dispatch());
}

TEST_F(Posted, StaysQueuedAfterAnotherOnesExceptionHasLeftTheTurn) {
  loop().post([] { throw std::runtime_error("from a posted function"); });
  post(1);
  EXPECT_THROW(loop().dispatch(), std::runtime_error);
  EXPECT_THAT(ran_, ElementsAre());
  EXPECT_TRUE(somethingIsDue());
  EXPECT_TRUE(loop().dispatch());
  EXPECT_THAT(ran_, ElementsAre(1));
}

TEST_F(Posted, RunsInATurnWithinAPostedFunction) {
  loop().post([this] {
    EXPECT_TRUE(loop().dispatch());
    ran_.push_back(0);
  });
  post(1);
  post(2);
  EXPECT_TRUE(loop().dispatch());
  EXPECT_THAT(ran_, ElementsAre(1, 2, 0));
  EXPECT_FALSE(loop().dispatch());
}

TEST_F(Posted, TakesTurnsWithTheDescriptors) {
  const Crowd one(1);
  int ran = 0;
  for (int i = 0; i < 200; ++i) {
    loop().post([&ran] { ++ran; });
  }
  loop().dispatch();
  EXPECT_EQ(ran, 64);
  EXPECT_EQ(one.watchers[0]->reads, 1);
  EXPECT_TRUE(turnUntil([&] { return ran == 200; }));
}

TEST_F(Posted, WaitsForOneBatchOfDescriptorsAtMost) {
  const Crowd crowd(500);
  loop().dispatch();
  for (int turn = 1; turn <= 20; ++turn) {  // with the descriptor's own event in the batch or not
    post(1);
    loop().post([this] { post(2); });
    loop().dispatch();
    EXPECT_THAT(ran_, ElementsAre(1));
    loop().dispatch();
    EXPECT_THAT(ran_, ElementsAre(1, 2));
    ran_.clear();
  }
}

TEST_F(Posted, WaitsForTheNextRunIfAStopCameFirst) {
  loop().stop();
  post(1);
  loop().run();
  EXPECT_THAT(ran_, ElementsAre());
  EXPECT_TRUE(somethingIsDue());
  loop().post([] { loop().stop(); });
  loop().run();
  EXPECT_THAT(ran_, ElementsAre(1));
}

TEST_F(Posted, IsDestroyedOnTheLoopsThreadRightAfterItRan) {
  std::thread::id where;
  auto captured = std::shared_ptr<int>(new int, [&where](const int* number) {
    where = std::this_thread::get_id();
    delete number;
  });
  loop().post([captured = std::move(captured)] {});
  loop().dispatch();
  EXPECT_EQ(where, std::this_thread::get_id());
}

TEST_F(Posted, IsRefusedIfItIsEmpty) {
  EXPECT_EQ(thrownBy([] { loop().post(nullptr); }),
            "EventLoop: an empty function cannot be posted");
  EXPECT_FALSE(somethingIsDue());
}

TEST_F(Posted, IsRefusedInAForkedChild) {
  post(1);
  const auto remote = loop().remote();
  EXPECT_TRUE(inChild([&] {
    return !remote.post([] {}) && !remote.stop() &&
           thrownBy([] { loop().post([] {}); }) != "<nothing thrown>";
  }));
  loop().post([] { loop().stop(); });
  loop().run();
  EXPECT_THAT(ran_, ElementsAre(1));
}

// --- loops that end ---

/// A loop of another thread, and what reaches it from this one.
struct OtherLoop {
  OtherLoop() {
    std::atomic<bool> ready{false};
    thread = std::thread([&] {
      remote = EventLoop::current().remote();
      ready = true;
      EventLoop::current().run();
    });
    while (!ready) {
      std::this_thread::yield();
    }
  }
  ~OtherLoop() {
    if (thread.joinable()) {
      remote->stop();
      thread.join();
    }
  }

  std::optional<EventLoop::Remote> remote;
  std::thread thread;
};

TEST(Remote, StopsALoopAndTellsThatItHasEnded) {
  OtherLoop other;
  EXPECT_TRUE(other.remote->stop());
  other.thread.join();
  bool ran = false;
  EXPECT_FALSE(other.remote->post([&ran] { ran = true; }));
  EXPECT_FALSE(other.remote->stop());
  EXPECT_FALSE(ran);
}

TEST(Remote, HasWhatWasNotRunDestroyedOnTheLoopsThread) {
  std::thread::id where;
  std::thread::id of;
  bool ran = false;
  bool postedFromThere = true;
  {
    OtherLoop other;
    of = other.thread.get_id();
    other.remote->post([&, remote = *other.remote] {
      EventLoop::current().stop();
      std::shared_ptr<int> last(new int, [&, remote](const int* number) {
        where = std::this_thread::get_id();
        postedFromThere = remote.post([] {});
        delete number;
      });
      remote.post([&ran, last] { ran = true; });
    });
    other.thread.join();
  }
  EXPECT_FALSE(ran);
  EXPECT_EQ(where, of);
  EXPECT_FALSE(postedFromThere);
}

TEST(Remote, LosesNothingSilentlyWhileItsLoopEnds) {
  for (int round = 0; round < 50; ++round) {
    std::atomic<int> done{0};
    int accepted = 0;
    {
      OtherLoop other;
      const auto remote = *other.remote;
      other.remote->stop();
      for (bool open = true; open && accepted < 100000;) {
        const std::shared_ptr<int> counts(new int, [&done](const int* number) {
          ++done;
          delete number;
        });
        open = remote.post([counts] {});
        ++accepted;
      }
    }
    EXPECT_EQ(done, accepted) << "run, destroyed or refused";
  }
}

}  // namespace
