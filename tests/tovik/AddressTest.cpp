// Under which address a name is found: 110 bytes in any case. Both clients build it alike; so does
// the server, or they would not meet.

#include <sys/un.h>

#include <csignal>
#include <cstddef>
#include <memory>
#include <string>

#include "Api/Json/Client.h"
#include "Api/Json/Server.h"
#include "tests/tovik/ClientSupport.h"

using Faults::Call;
using namespace std::string_literals;

namespace {

/// What a client hands to connect for a server of that name. It gets nowhere.
Faults::Seen connectTo(const Kelvo::String& name) {
  const Faults::Trace trace;
  const Faults::Fail fail(Call::kConnect, ECONNREFUSED);
  EXPECT_THROW(Tovik::Client client(name), Tovik::SocketException);
  return trace.of(Call::kConnect).at(0);
}

/// The address as the wire's rule has it: family, NUL, the name, zeros to the end.
std::string addressOf(const std::string& name) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;  // in the machine's byte order
  name.copy(address.sun_path + 1, name.size());
  return std::string(reinterpret_cast<const char*>(&address), 110);
}

bool canConnect(const Kelvo::String& name) {
  try {
    Tovik::Client client(name);
    return true;
  } catch (const Tovik::SocketException& refused) {
    EXPECT_STREQ(refused.what(), "Connection refused");
    return false;
  }
}

/// Other tests may be using the one empty name at this moment.
std::unique_ptr<Tovik::Server> serverOfTheEmptyName() {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  std::unique_ptr<Tovik::Server> server;
  while (!server && std::chrono::steady_clock::now() < deadline) {
    try {
      server = std::make_unique<Tovik::Server>(
          "", [](Tovik::Connection&, const Tovik::Message&) {},
          [](int, unsigned, unsigned) { return true; });
    } catch (const Tovik::SocketException&) {
      std::this_thread::yield();
    }
  }
  return server;
}

std::string padded(std::size_t size) {
  std::string name = uniqueName();
  name.resize(size, 'n');
  return name;
}

}  // namespace

TEST(Address, Is110BytesForEveryName) {
  for (const auto& name : {""s, "a"s, "tovik.name"s, padded(106)}) {
    EXPECT_EQ(connectTo(name).size, 110U);
  }
}

TEST(Address, IsTheFamilyANulTheNameAndZerosToTheEnd) {
  for (const auto& name : {"a"s, "tovik.name"s, "\xc3\xa4 b/c"s, padded(105), padded(106)}) {
    EXPECT_EQ(connectTo(name).bytes, addressOf(name));
  }
}

TEST(Address, IsAllZeroBehindTheFamilyForTheEmptyName) {
  EXPECT_EQ(connectTo("").bytes, addressOf(""));
}

TEST(Address, EndsANameAtItsNul) {
  EXPECT_EQ(connectTo("cut\0off"s).bytes, addressOf("cut"));
  EXPECT_EQ(connectTo("\0off"s).bytes, addressOf(""));
}

TEST(Address, IsTheSameForTheAsynchronousClient) {
  const std::string name = padded(106);
  Tovik::AsyncClient client(name, nullptr, nullptr, 3600);
  const Faults::Trace trace;
  client.timeout();
  ASSERT_EQ(trace.count(Call::kConnect), 1);
  EXPECT_EQ(trace.of(Call::kConnect).at(0).size, 110U);
  EXPECT_EQ(trace.of(Call::kConnect).at(0).bytes, addressOf(name));
}

TEST(Address, BringsTheEmptyNameToTheServerOfTheEmptyName) {
  const auto server = serverOfTheEmptyName();
  ASSERT_TRUE(server);
  EXPECT_TRUE(canConnect(""));
}

TEST(Address, MeetsAServerOfTheSame106Bytes) {
  const std::string name = padded(106);
  const RawServer server(name);
  EXPECT_TRUE(canConnect(name));
}

TEST(Address, MeetsTheServerOfTheNameBeforeANul) {
  const std::string name = uniqueName();
  const RawServer server(name);
  EXPECT_TRUE(canConnect(name + "\0more"s));
}

TEST(Address, TellsNamesApartByTheirLastByte) {
  const std::string name = padded(105);
  const RawServer server(name + 'a');
  EXPECT_FALSE(canConnect(name + 'b'));
  EXPECT_FALSE(canConnect(name));
}

TEST(Address, DoesNotMeetAServerWhoseNameGoesOnAfterThe106thByte) {
  const std::string name = padded(106);
  const RawServer server(name + 'a');
  EXPECT_FALSE(canConnect(name));
}

TEST(Address, DoesNotMeetAServerThatBoundTheNamesOwnLength) {
  const std::string name = uniqueName();
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
  for (const socklen_t shorter : {size, size + 1, socklen_t{109}}) {
    const Fd server = rawListen(name, shorter);
    EXPECT_FALSE(canConnect(name)) << shorter;
    EXPECT_GE(rawConnect(name, shorter).get(), 0) << shorter;
  }
}

TEST(AddressDeathTest, EndsTheProcessForANameOf107Bytes) {
  const std::string name = padded(107);
  EXPECT_EXIT(Tovik::Client client(name), testing::KilledBySignal(SIGABRT), kWordsOnALongName);
}

TEST(AddressDeathTest, EndsTheProcessForAMuchLongerName) {
  EXPECT_EXIT(Tovik::Client client(padded(5000)), testing::KilledBySignal(SIGABRT),
              kWordsOnALongName);
}

TEST(AddressDeathTest, EndsTheProcessAtTheAsynchronousClientsFirstAttempt) {
  Tovik::AsyncClient client(padded(107), nullptr, nullptr, 3600);
  EXPECT_EXIT(client.timeout(), testing::KilledBySignal(SIGABRT), kWordsOnALongName);
}
