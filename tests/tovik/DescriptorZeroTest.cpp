#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>
#include <thread>

#include "Api/Json/Server.h"
#include "tests/kelvo/Handlers.h"
#include "tests/support/Faults.h"
#include "tests/support/Support.h"

// A process that was started without standard input gets 0 for a descriptor like any other.

namespace {

bool isTaken() {
  return fcntl(STDIN_FILENO, F_GETFD) >= 0;
}

class DescriptorZero : public testing::Test {
 protected:
  Tovik::Server serverThatAdmits(bool all) const {
    return Tovik::Server(
        name_, [](Tovik::Connection& client, const Tovik::Message&) { client.acknowledge(3); },
        [all](int, unsigned, unsigned) { return all; });
  }

  const std::string name_ = uniqueName();

 private:
  const Kelvo::Platform::EventLoop& loop_ = loop();  // which is to have its descriptors elsewhere
  const FreeDescriptorZero zero_;
};

}  // namespace

TEST_F(DescriptorZero, CanBeAServersAndIsClosedWithIt) {
  {
    const Tovik::Server server = serverThatAdmits(true);
    EXPECT_TRUE(isTaken());
    const Fd client = rawConnect(name_);
    rawSend(client.get(), "{}");
    turnUntilIdle();
    EXPECT_EQ(rawReceiveNow(client.get()), R"({"type":"reply","status":3})");
  }
  EXPECT_FALSE(isTaken());
}

TEST_F(DescriptorZero, CanBeAnAdmittedClients) {
  Fd taken(eventfd(0, 0));
  Tovik::Server server = serverThatAdmits(true);
  const Fd client = rawConnect(name_);
  taken.reset();
  rawSend(client.get(), "{}");
  turnUntilIdle();
  EXPECT_TRUE(isTaken());
  EXPECT_EQ(rawReceiveNow(client.get()), R"({"type":"reply","status":3})");
}

TEST_F(DescriptorZero, CanBeARefusedClients) {
  Fd taken(eventfd(0, 0));
  Tovik::Server server = serverThatAdmits(false);
  const Fd client = rawConnect(name_);
  taken.reset();
  turnUntilIdle();
  EXPECT_FALSE(isTaken());
  EXPECT_EQ(rawReceiveNow(client.get()), "<end>");
}

TEST_F(DescriptorZero, IsClosedWhenItsServerCannotListen) {
  Fd taken(eventfd(0, 0));
  const Fd other = rawListen(name_);
  taken.reset();
  EXPECT_THROW(serverThatAdmits(true), Tovik::SocketException);
  EXPECT_FALSE(isTaken());
}

TEST_F(DescriptorZero, IsClosedWhenItsServerCannotBeWatched) {
  {
    const Faults::Fail refused(Faults::Call::kEpollCtl, ENOSPC);
    EXPECT_THROW(serverThatAdmits(true), Kelvo::Exception);
  }
  EXPECT_FALSE(isTaken());
}

TEST_F(DescriptorZero, CanBeAttachedAndDetached) {
  const Fd event(eventfd(1, 0));
  ASSERT_EQ(event.get(), STDIN_FILENO);
  Watcher watcher(event.get());
  watcher.control->setWriteInterest(true);
  EXPECT_TRUE(loop().dispatch());
  watcher.control->detach();
  EXPECT_EQ(watcher.control->fd(), -1);
  EXPECT_FALSE(loop().dispatch());
  EXPECT_EQ(watcher.reads, 1);
  EXPECT_EQ(watcher.writes, 1);
}

TEST_F(DescriptorZero, CanBeALoops) {
  bool fired = false;
  std::thread([&fired] {
    Alarm alarm;
    EXPECT_TRUE(isTaken());
    alarm.timer->arm(0);
    fired = turnUntil([&alarm] { return alarm.fired == 1; });
  }).join();
  EXPECT_TRUE(fired);
  EXPECT_FALSE(isTaken());
}
