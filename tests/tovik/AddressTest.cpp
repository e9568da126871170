// Under which address a name is found: 110 bytes in any case. Both clients and the server build it
// alike.

#include <sys/un.h>

#include <csignal>
#include <cstddef>
#include <string>

#include "Api/Json/Client.h"
#include "Api/Json/Server.h"
#include "tests/tovik/ClientSupport.h"
#include "tests/tovik/Peers.h"

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

/// What a server of that name hands to bind. It gets no further.
Faults::Seen bindTo(const Kelvo::String& name) {
  const Faults::Trace trace;
  const Faults::Fail fail(Call::kBind, EADDRINUSE);
  EXPECT_THROW(Tovik::Server(name, nullptr, admitAll), Tovik::SocketException);
  return trace.of(Call::kBind).at(0);
}

/// The address as the wire's rule has it: family, NUL, the name, zeros to the end.
std::string addressOf(const std::string& name) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;  // in the machine's byte order
  name.copy(address.sun_path + 1, name.size());
  return std::string(reinterpret_cast<const char*>(&address), 110);
}

std::string padded(std::size_t size) {
  std::string name = uniqueName();
  name.resize(size, 'n');
  return name;
}

}  // namespace

TEST(Address, IsTheFamilyANulTheNameAndZerosToTheEnd) {
  for (const auto& name : {""s, "a"s, "tovik.name"s, "\xc3\xa4 b/c"s, padded(105), padded(106)}) {
    EXPECT_EQ(connectTo(name).bytes, addressOf(name));
    EXPECT_EQ(bindTo(name).bytes, addressOf(name));
  }
}

TEST(Address, EndsANameAtItsNul) {
  for (const auto& [name, cut] : {std::pair("cut\0off"s, "cut"), {"\0off"s, ""}}) {
    EXPECT_EQ(connectTo(name).bytes, addressOf(cut));
    EXPECT_EQ(bindTo(name).bytes, addressOf(cut));
  }
}

TEST(Address, IsTheSameForTheAsynchronousClient) {
  const std::string name = padded(106);
  Tovik::AsyncClient client(name, nullptr, nullptr, 3600);
  const Faults::Trace trace;
  client.timeout();
  ASSERT_EQ(trace.count(Call::kConnect), 1);
  EXPECT_EQ(trace.of(Call::kConnect).at(0).bytes, addressOf(name));
}

TEST(Address, DoesNotMeetAServerThatBoundTheNamesOwnLength) {
  const std::string name = uniqueName();
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
  for (const socklen_t shorter : {size, size + 1, socklen_t{109}}) {
    const Fd server = rawListen(name, shorter);
    EXPECT_THROW(Tovik::Client client(name), Tovik::SocketException) << shorter;
    EXPECT_GE(rawConnect(name, shorter).get(), 0) << shorter;
  }
}

TEST(AddressDeathTest, EndsTheProcessForANameOf107BytesOrMore) {
  for (const auto& name : {padded(107), padded(5000)}) {
    EXPECT_EXIT(Tovik::Client client(name), testing::KilledBySignal(SIGABRT), kWordsOnALongName);
    EXPECT_EXIT(Tovik::Server(name, nullptr, admitAll), testing::KilledBySignal(SIGABRT),
                kWordsOnALongName);
  }
}

TEST(AddressDeathTest, EndsTheProcessAtTheAsynchronousClientsFirstAttempt) {
  Tovik::AsyncClient client(padded(107), nullptr, nullptr, 3600);
  EXPECT_EXIT(client.timeout(), testing::KilledBySignal(SIGABRT), kWordsOnALongName);
}
