#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>

#include "Api/Json/Async.h"
#include "Api/Json/Client.h"
#include "Api/Json/Connection.h"
#include "Api/Json/Server.h"

// A library and an application that were built apart agree on a class by the order of its virtual
// functions. A base library put in place of another one has to keep it too.

namespace {

using Kelvo::Platform::FdControl;
using Kelvo::Platform::FdEventHandler;
using Kelvo::Platform::TimeoutHandler;

/// The place of a virtual function in its class's table. By the C++ ABI that Linux uses, a pointer
/// to such a function holds the offset in the table, in some processors' variants plus one.
template <class Member>
std::size_t slot(Member member) {
  std::size_t offset = 0;
  std::memcpy(&offset, &member, sizeof offset);
  return (offset & ~std::size_t{1}) / sizeof(void*);
}

// The destructor comes first in every class and takes two places.

TEST(VirtualOrder, OfADescriptorsHandler) {
  EXPECT_EQ(slot(&FdEventHandler::readFdEvent), 2U);
  EXPECT_EQ(slot(&FdEventHandler::writeFdEvent), 3U);
  EXPECT_EQ(slot(&FdEventHandler::handleFdException), 4U);
}

TEST(VirtualOrder, OfAControl) {
  EXPECT_EQ(slot(&FdControl::setWriteInterest), 2U);
  EXPECT_EQ(slot(&FdControl::attach), 3U);
  EXPECT_EQ(slot(&FdControl::fd), 4U);
  EXPECT_EQ(slot(&FdControl::detach), 5U);
}

TEST(VirtualOrder, OfATimersHandlerAndATimer) {
  EXPECT_EQ(slot(&TimeoutHandler::timeout), 2U);
  EXPECT_EQ(slot(&TimeoutHandler::handleTimeoutException), 3U);
  EXPECT_EQ(slot(&Kelvo::Platform::Timer::arm), 2U);
}

TEST(VirtualOrder, OfTheSenderAndTheConnection) {
  EXPECT_EQ(slot(&Tovik::AsyncSender::writeFdEvent), 3U);
  EXPECT_EQ(slot(&Tovik::AsyncSender::terminateConnection), 5U);
  EXPECT_EQ(slot(&Tovik::Connection::readFdEvent), 2U);
}

TEST(VirtualOrder, OfTheServer) {
  EXPECT_EQ(slot(&Tovik::Server::readFdEvent), 2U);
  EXPECT_EQ(slot(&Tovik::Server::writeFdEvent), 3U);
}

TEST(VirtualOrder, OfTheClientForTheLoop) {
  EXPECT_EQ(slot(&Tovik::AsyncClient::timeout), 2U);
  EXPECT_EQ(slot(&Tovik::AsyncClient::readFdEvent), 4U);
  EXPECT_EQ(slot(&Tovik::AsyncClient::terminateConnection), 5U);
}

TEST(VirtualOrder, OfTheException) {
  EXPECT_EQ(slot(&Tovik::SocketException::name), 3U);
}

// No class has a virtual function, a base or a member that the sizes do not show.

TEST(Layout, OfTheSenderIsHandleQueueAndBufferSize) {
  EXPECT_EQ(sizeof(Tovik::AsyncSender),
            sizeof(void*) + sizeof(void*) + sizeof(std::deque<Kelvo::String>) + sizeof(void*));
}

}  // namespace
