#include "Kelvo/Ptr.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "Kelvo/Platform/EventLoop.h"

using Kelvo::Counted;
using Kelvo::Ptr;
using Kelvo::ThreadControl;
using Kelvo::Platform::EventLoop;

namespace {

std::atomic<int> alive{0};

class Probe : public Counted {
 public:
  Probe() { ++alive; }
  ~Probe() override { --alive; }
  int value = 7;
};

std::atomic<int> derivedGone{0};

class DerivedProbe final : public Probe {
 public:
  ~DerivedProbe() override { ++derivedGone; }
};

/// Every test twice: counting with plain loads and stores, and with atomic operations.
class Handle : public testing::TestWithParam<bool> {
 protected:
  Handle() {
    alive = 0;
    derivedGone = 0;
    ThreadControl::tsp_ = GetParam();
  }
  ~Handle() override {
    EXPECT_EQ(alive, 0);
    ThreadControl::tsp_ = before_;
  }

 private:
  const bool before_ = ThreadControl::tsp_;
};

INSTANTIATE_TEST_SUITE_P(PlainAndAtomic, Handle, testing::Bool(),
                         [](const auto& threads) { return threads.param ? "Atomic" : "Plain"; });

TEST_P(Handle, IsEmptyWhenMadeFromNothing) {
  const Ptr<Probe> none;
  const Ptr<Probe> null(nullptr);

  EXPECT_TRUE(none.empty());
  EXPECT_FALSE(none);
  EXPECT_EQ(none.get(), nullptr);
  EXPECT_TRUE(null.empty());
}

TEST_P(Handle, GivesAccessToItsObject) {
  auto* probe = new Probe;
  const Ptr<Probe> handle(probe);

  EXPECT_FALSE(handle.empty());
  EXPECT_TRUE(handle);
  EXPECT_EQ(handle.get(), probe);
  EXPECT_EQ(&*handle, probe);
  EXPECT_EQ(handle->value, 7);
}

TEST_P(Handle, DeletesTheObjectWithTheLastHandle) {
  Ptr<Probe> first(new Probe);
  auto second = first;
  const auto third = std::make_unique<Ptr<Probe>>(second);

  first.reset();
  EXPECT_TRUE(first.empty());
  first.reset();
  third->reset();
  EXPECT_EQ(alive, 1);
  second.reset();
  EXPECT_EQ(alive, 0);
}

TEST_P(Handle, SharesTheCountWithHandlesMadeFromThePlainPointer) {
  Ptr<Probe> first(new Probe);
  const Ptr<Probe> second(first.get());
  first.reset();

  EXPECT_EQ(alive, 1);
  EXPECT_EQ(second->value, 7);
}

TEST_P(Handle, IsEmptyAfterItWasMovedFrom) {
  Ptr<Probe> first(new Probe);
  Ptr<Probe> second(std::move(first));

  EXPECT_TRUE(first.empty());
  EXPECT_EQ(alive, 1);
  second.reset();
  EXPECT_EQ(alive, 0);
}

TEST_P(Handle, ReleasesWhatItHeldWhenAssignedTo) {
  Ptr<Probe> handle(new Probe);
  Ptr<Probe> other(new Probe);
  handle = other;

  EXPECT_EQ(alive, 1);
  EXPECT_EQ(handle.get(), other.get());
  handle = Ptr<Probe>(new Probe);
  EXPECT_EQ(alive, 2);
  handle = Ptr<Probe>();
  EXPECT_EQ(alive, 1);
  EXPECT_TRUE(handle.empty());
}

TEST_P(Handle, TakesOverWhatIsMovedIntoIt) {
  Ptr<Probe> handle(new Probe);
  Ptr<Probe> other(new Probe);
  const auto* moved = other.get();
  handle = std::move(other);

  EXPECT_EQ(alive, 1);
  EXPECT_EQ(handle.get(), moved);
  EXPECT_TRUE(other.empty());
}

TEST_P(Handle, KeepsItsObjectWhenAssignedToItself) {
  Ptr<Probe> handle(new Probe);
  Ptr<Probe>& itself = handle;

  handle = itself;
  EXPECT_EQ(alive, 1);
  handle = std::move(itself);
  EXPECT_EQ(alive, 1);
  EXPECT_EQ(handle->value, 7);
}

TEST_P(Handle, ConvertsToAHandleOfABase) {
  Ptr<DerivedProbe> derived(new DerivedProbe);
  Ptr<Probe> base = derived;
  Ptr<const Counted> constant = base;

  derived.reset();
  base.reset();
  EXPECT_EQ(alive, 1);
  EXPECT_FALSE(constant.empty());
  constant.reset();
  EXPECT_EQ(derivedGone, 1) << "through the virtual destructor";
}

struct LooksBack : Counted {
  LooksBack(const Ptr<LooksBack>& handle, bool& foundEmpty)
      : handle_(handle), foundEmpty_(foundEmpty) {}
  ~LooksBack() override { foundEmpty_ = handle_.empty(); }

 private:
  const Ptr<LooksBack>& handle_;
  bool& foundEmpty_;
};

TEST_P(Handle, IsEmptyBeforeTheObjectGoes) {
  bool foundEmpty = false;
  Ptr<LooksBack> handle;
  handle = Ptr<LooksBack>(new LooksBack(handle, foundEmpty));
  handle.reset();

  EXPECT_TRUE(foundEmpty);
}

/// Copies the handle in several threads at once, which wait for each other before they start.
void copyInThreads(const Ptr<Probe>& shared, int count) {
  std::atomic<int> ready{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i) {
    threads.emplace_back([own = shared, &ready, count] {
      ++ready;
      while (ready < count) {
        std::this_thread::yield();
      }
      for (int j = 0; j < 500000; ++j) {
        const Ptr<Probe> copy = own;
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
}

TEST(SharedHandle, CountsRightWhenThreadsCopyItWithThreadSafetySet) {
  alive = 0;
  const bool before = ThreadControl::tsp_.exchange(true);
  Ptr<Probe> handle(new Probe);
  copyInThreads(handle, 4);

  EXPECT_EQ(alive, 1);
  handle.reset();
  EXPECT_EQ(alive, 0);
  ThreadControl::tsp_ = before;
}

TEST(HandleType, CopiesHandlesButNotObjects) {
  EXPECT_FALSE(std::is_copy_constructible_v<Counted>);
  EXPECT_FALSE(std::is_copy_assignable_v<Counted>);
  EXPECT_TRUE(std::is_nothrow_copy_constructible_v<Ptr<Probe>>);
  EXPECT_TRUE(std::is_nothrow_move_constructible_v<Ptr<Probe>>);
  EXPECT_FALSE((std::is_convertible_v<Probe*, Ptr<Probe>>));
}

// Each of these runs in a process of its own, in which nothing has made a loop yet.

void expect(bool condition) {
  if (!condition) {
    _exit(1);
  }
}

void inAnotherThread(void (*action)()) {
  std::thread(action).join();
}

TEST(ThreadControl, StaysClearForTheFirstLoopWhicheverThreadMakesIt) {
  EXPECT_EXIT(
      {
        inAnotherThread([] { EventLoop::current().dispatch(); });
        expect(!ThreadControl::tsp_);
        _exit(0);
      },
      testing::ExitedWithCode(0), "");
}

TEST(ThreadControl, IsSetWhenASecondThreadMakesALoop) {
  EXPECT_EXIT(
      {
        EventLoop::current().dispatch();
        EventLoop::current().dispatch();
        inAnotherThread([] {});
        expect(!ThreadControl::tsp_);
        inAnotherThread([] {
          EventLoop::current();
          expect(ThreadControl::tsp_);
        });
        expect(ThreadControl::tsp_);
        _exit(0);
      },
      testing::ExitedWithCode(0), "");
}

TEST(ThreadControl, IsNeverClearedAgain) {
  EXPECT_EXIT(
      {
        ThreadControl::tsp_ = true;
        EventLoop::current().dispatch();
        inAnotherThread([] { EventLoop::current().dispatch(); });
        expect(ThreadControl::tsp_);
        _exit(0);
      },
      testing::ExitedWithCode(0), "");
}

}  // namespace
