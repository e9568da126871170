// An application and a library that were built apart agree on a class by the order of its members
// and of its virtual functions. This file is compiled without access control: most members are
// private.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include "Api/Json/Client.h"
#include "Api/Json/Server.h"
#include "Kelvo/Platform/Debug.h"
#include "Kelvo/Platform/EventLoop.h"

namespace {

using Kelvo::Platform::FdControl;
using Kelvo::Platform::FdEventHandler;
using Kelvo::Platform::TimeoutHandler;

// --- virtual functions ---

/// The place of a virtual function in its class's table. By the C++ ABI that Linux uses, a pointer
/// to such a function holds the offset in the table, in some processors' variants plus one.
template <class Member>
std::size_t slot(Member member) {
  std::size_t offset = 0;
  std::memcpy(&offset, &member, sizeof offset);
  return (offset & ~std::size_t{1}) / sizeof(void*);
}

/// How many places a class's table has: a virtual function of a class derived from it comes next.
template <class Base>
struct Derived : Base {
  virtual void next() {}
};
template <class Base>
std::size_t slots() {
  return slot(&Derived<Base>::next);
}

/// Holds that a class's virtual functions are these, in this order, behind the destructor, which
/// takes two places.
template <class Class, class... Members>
void expectOrder(Members... members) {
  const std::vector<std::size_t> found{slot(members)..., slots<Class>()};
  for (std::size_t i = 0; i < found.size(); ++i) {
    EXPECT_EQ(found[i], 2 + i);
  }
}

TEST(VirtualOrder, OfTheBaseLibrary) {
  using Kelvo::Platform::RawDebugHandler;
  using Kelvo::Platform::Timer;
  expectOrder<FdEventHandler>(&FdEventHandler::readFdEvent, &FdEventHandler::writeFdEvent,
                              &FdEventHandler::handleFdException);
  expectOrder<FdControl>(&FdControl::setWriteInterest, &FdControl::attach, &FdControl::fd,
                         &FdControl::detach);
  expectOrder<TimeoutHandler>(&TimeoutHandler::timeout, &TimeoutHandler::handleTimeoutException);
  expectOrder<Timer>(&Timer::arm, &Timer::disarm);
  expectOrder<RawDebugHandler>(&RawDebugHandler::output);
}

TEST(VirtualOrder, OfTheSenderAndTheConnection) {
  using Tovik::AsyncSender;
  using Tovik::Connection;
  expectOrder<AsyncSender>(&AsyncSender::readFdEvent, &AsyncSender::writeFdEvent,
                           &AsyncSender::handleFdException, &AsyncSender::terminateConnection);
  expectOrder<Connection>(&Connection::readFdEvent, &Connection::writeFdEvent,
                          &Connection::handleFdException, &Connection::terminateConnection);
}

TEST(VirtualOrder, OfTheServer) {
  using Tovik::Server;
  expectOrder<Server>(&Server::readFdEvent, &Server::writeFdEvent, &Server::handleFdException);
}

TEST(VirtualOrder, OfTheBlockingClientIsItsDestructor) {
  EXPECT_TRUE(std::has_virtual_destructor_v<Tovik::Client>);
  expectOrder<Tovik::Client>();
}

TEST(VirtualOrder, OfTheClientForTheLoopIsTheTimersAndThenItsOwn) {
  using Tovik::AsyncClient;
  expectOrder<AsyncClient>(&AsyncClient::timeout, &AsyncClient::handleTimeoutException,
                           &AsyncClient::readFdEvent, &AsyncClient::terminateConnection);
}

TEST(VirtualOrder, OfTheException) {
  using Tovik::SocketException;
  expectOrder<SocketException>(&SocketException::what, &SocketException::name);
}

// --- members ---

struct Field {
  const char* name;
  std::size_t offset, size, alignment;
};

#define FIELD(Class, member)                                                                  \
  Field {                                                                                     \
#member, offsetof(Class, member), sizeof(Class::member), alignof(decltype(Class::member)) \
  }

constexpr std::size_t roundedUp(std::size_t offset, std::size_t alignment) {
  return (offset + alignment - 1) / alignment * alignment;
}

/// Holds that the fields follow each other in this order from `begin` on, with nothing in between
/// and nothing behind the last.
void expectInOrder(std::size_t begin, const std::vector<Field>& fields, std::size_t size) {
  std::size_t end = begin;
  for (const Field& field : fields) {
    EXPECT_EQ(field.offset, roundedUp(end, field.alignment)) << field.name;
    end = field.offset + field.size;
  }
  EXPECT_EQ(size, roundedUp(end, alignof(void*)));
}

constexpr std::size_t kTable = sizeof(void*);  // where an object's virtual functions are

const std::vector<Field> kSender{FIELD(Tovik::AsyncSender, fdControl_),
                                 FIELD(Tovik::AsyncSender, sendQueue_),
                                 FIELD(Tovik::AsyncSender, readBufferSize_)};

/// Where the sender's last member ends and a derived class's first may begin.
constexpr std::size_t kEndOfSender =
    kTable + sizeof(void*) + sizeof(std::deque<Kelvo::String>) + sizeof(int);

TEST(Layout, OfTheSender) {
  static_assert(std::is_base_of_v<FdEventHandler, Tovik::AsyncSender>);
  expectInOrder(kTable, kSender, sizeof(Tovik::AsyncSender));
}

TEST(Layout, OfTheConnectionGoesOnWhereTheSenderEnds) {
  expectInOrder(kEndOfSender,
                {FIELD(Tovik::Connection, notification_), FIELD(Tovik::Connection, handler_),
                 FIELD(Tovik::Connection, extraQueue_)},
                sizeof(Tovik::Connection));
}

TEST(Layout, OfTheServer) {
  expectInOrder(kTable,
                {FIELD(Tovik::Server, handler_), FIELD(Tovik::Server, fdControl_),
                 FIELD(Tovik::Server, validator_), FIELD(Tovik::Server, connections_)},
                sizeof(Tovik::Server));
}

TEST(Layout, OfTheBlockingClient) {
  expectInOrder(kTable, {FIELD(Tovik::Client, fd_), FIELD(Tovik::Client, readBufferSize_)},
                sizeof(Tovik::Client));
}

TEST(Layout, OfTheClientForTheLoopIsATimersHandlerAndASender) {
  static_assert(std::is_base_of_v<TimeoutHandler, Tovik::AsyncClient>);
  EXPECT_EQ(offsetof(Tovik::AsyncClient, fdControl_), sizeof(TimeoutHandler) + kTable)
      << "the sender comes second";
  expectInOrder(sizeof(TimeoutHandler) + kEndOfSender,
                {FIELD(Tovik::AsyncClient, socketName_), FIELD(Tovik::AsyncClient, messageHandler_),
                 FIELD(Tovik::AsyncClient, connectHandler_), FIELD(Tovik::AsyncClient, timer_),
                 FIELD(Tovik::AsyncClient, reconnectInterval_)},
                sizeof(Tovik::AsyncClient));
}

TEST(Layout, OfTheBaseLibrary) {
  using Kelvo::Platform::DebugRecord;
  EXPECT_EQ(sizeof(FdEventHandler), kTable);
  EXPECT_EQ(sizeof(TimeoutHandler), kTable);
  EXPECT_EQ(sizeof(Kelvo::Platform::DebugStream), sizeof(std::ostringstream));
  expectInOrder(0, {FIELD(Kelvo::String, bytes_)}, sizeof(Kelvo::String));
  expectInOrder(0, {FIELD(Kelvo::Ptr<FdControl>, object_)}, sizeof(Kelvo::Ptr<FdControl>));
  expectInOrder(
      0, {FIELD(Kelvo::Platform::EventLoop, core_), FIELD(Kelvo::Platform::EventLoop, inherited_)},
      sizeof(Kelvo::Platform::EventLoop));
  expectInOrder(kTable, {FIELD(Kelvo::Counted, references_)}, sizeof(Kelvo::Counted));
  expectInOrder(kTable, {FIELD(Kelvo::Platform::RawDebugHandler, mask_)},
                sizeof(Kelvo::Platform::RawDebugHandler));
  expectInOrder(sizeof(std::exception),
                {FIELD(Kelvo::Exception, message_), FIELD(Kelvo::Exception, external_)},
                sizeof(Kelvo::Exception));
  EXPECT_EQ(sizeof(Tovik::SocketException), sizeof(Kelvo::Exception));
  expectInOrder(0,
                {FIELD(DebugRecord, channel), FIELD(DebugRecord, level), FIELD(DebugRecord, file),
                 FIELD(DebugRecord, function), FIELD(DebugRecord, line), FIELD(DebugRecord, text)},
                sizeof(DebugRecord));
}

}  // namespace
