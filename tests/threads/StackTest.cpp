#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <iostream>
#include <string>
#include <string_view>
#include <utility>

#include "Api/Json/Connection.h"
#include "tests/support/Support.h"

// How large a stack a thread needs to serve whatever a peer sends. One record is parsed
// recursively, so its deepest nesting decides; texts joined from several records must not need
// more. Each size is tried in a child process, which dies if it is too small.

#if defined(__has_feature)
#define TOVIK_HAS(feature) __has_feature(feature)
#else
#define TOVIK_HAS(feature) 0
#endif

namespace {

#if defined(__SANITIZE_THREAD__) || TOVIK_HAS(thread_sanitizer)
constexpr std::size_t kDocumentedKib = 2048;
#elif defined(__SANITIZE_ADDRESS__) || TOVIK_HAS(address_sanitizer)
constexpr std::size_t kDocumentedKib = 1024;
#elif defined(__s390x__)  // each of whose frames has room for all registers
constexpr std::size_t kDocumentedKib = 1024;
#else
constexpr std::size_t kDocumentedKib = 512;
#endif

constexpr std::size_t kLongestText = 4094;
constexpr auto kReply = R"({"type":"reply","status":7})";

/// The deepest text: nothing but opening brackets. It is no JSON, but the parser follows it down.
std::string deepestText() {
  return std::string(kLongestText, '[');
}

/// The deepest message.
std::string deepestMessage() {
  const std::string frame = R"({"m":})";
  const std::size_t depth = (kLongestText - frame.size()) / 2;
  return R"({"m":)" + std::string(depth, '[') + std::string(depth, ']') + "}";
}

/// The deepest message of that many full-length records, which a reader joins, and one more.
std::string joinedMessage(std::size_t records) {
  const std::size_t depth = records * 4095 / 2;
  return R"({"m":)" + std::string(depth, '[') + std::string(depth, ']') + "}";
}

void sendInFullRecords(int fd, std::string_view text) {
  for (; !text.empty(); text.remove_prefix(std::min<std::size_t>(4095, text.size()))) {
    rawSend(fd, text.substr(0, 4095));
  }
}

/// A thread that sends every message back and acknowledges it, until its client leaves.
void* serve(void* socket) {
  Tovik::Connection connection(static_cast<Fd*>(socket)->release(),
                               [](Tovik::Connection& client, const Tovik::Message& msg) {
                                 client.sendMsg(msg);
                                 client.acknowledge(7);
                               });
  while (connection.isAttached()) {
    Kelvo::Platform::EventLoop::current().runOnce(std::chrono::seconds(1));
  }
  return nullptr;
}

/// Whether a thread with that stack gets through what `client` has sent, up to its reply.
bool serves(std::size_t kib, const Fd& client, Fd server) {
  setNonBlocking(server.get());
  pthread_attr_t attributes;
  pthread_t thread{};
  if (pthread_attr_init(&attributes) != 0 ||
      pthread_attr_setstacksize(&attributes, kib * 1024) != 0 ||
      pthread_create(&thread, &attributes, &serve, &server) != 0) {
    return false;
  }
  const bool answered = rawReceive(client.get()) != "<end>" && rawReceive(client.get()) == kReply;
  ::shutdown(client.get(), SHUT_RDWR);
  pthread_join(thread, nullptr);
  return answered;
}

bool servesDeepestRecords(std::size_t kib) {
  auto [client, server] = rawPair();
  rawSend(client.get(), deepestText());
  rawSend(client.get(), deepestMessage());
  return serves(kib, client, std::move(server));
}

bool servesJoinedRecords(std::size_t kib) {
  constexpr std::size_t kRecords = 16;  // a socket's buffer holds a few more
  auto [client, server] = rawPair();
  sendInFullRecords(client.get(), joinedMessage(kRecords));
  return serves(kib, client, std::move(server));
}

bool isEnough(std::size_t kib, bool (*served)(std::size_t) = &servesDeepestRecords) {
  return inChild([&] {
    const rlimit none{0, 0};
    setrlimit(RLIMIT_CORE, &none);
    ::close(STDERR_FILENO);  // a sanitizer's word on the overflow that is looked for
    return served(kib);
  });
}

/// To a page. A thread without any stack to speak of cannot even start.
std::size_t smallestThatIsEnough() {
  std::size_t tooSmall = 16;
  std::size_t enough = kDocumentedKib;
  while (enough - tooSmall > 4) {
    const std::size_t middle = (tooSmall + enough) / 8 * 4;
    (isEnough(middle) ? enough : tooSmall) = middle;
  }
  return enough;
}

}  // namespace

TEST(ThreadStack, OfTheDocumentedSizeIsEnoughForTheDeepestRecord) {
  ASSERT_EQ(deepestMessage().size(), kLongestText);
  EXPECT_TRUE(isEnough(kDocumentedKib));
}

TEST(ThreadStack, OfTheDocumentedSizeIsEnoughForRecordsThatAReaderJoins) {
  EXPECT_TRUE(isEnough(kDocumentedKib, &servesJoinedRecords));
}

// Or what the documents say would be far from the truth.
TEST(ThreadStack, OfAQuarterOfTheDocumentedSizeIsTooSmall) {
  const std::size_t smallest = smallestThatIsEnough();
  std::cout << "The smallest stack that is enough: " << smallest << " KiB" << std::endl;
  EXPECT_GT(smallest, kDocumentedKib / 4);
}
