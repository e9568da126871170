#include <gtest/gtest.h>
#include <link.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <thread>

#include "Api/Json/Client.h"
#include "Api/Json/Connection.h"
#include "Api/Json/Server.h"
#include "tests/scripted/Script.h"

using Faults::Call;
using Faults::Fail;

namespace {

/// Every source file of the library at work: a server, a client of each kind, and what they say.
class Diagnostics : public ::testing::Test {
 protected:
  /// One statement of the server's, of the connections', of the clients' and of the senders'.
  void workEverywhere() {
    const std::string name = freshName();
    Tovik::Server server(
        name.c_str(),
        [](Tovik::Connection& connection, const Tovik::Message&) { connection.acknowledge(0); },
        [](int, unsigned, unsigned) { return true; });
    const int listening = script.watch(1).fd;
    Tovik::AsyncClient client(
        name.c_str(), [](Tovik::AsyncClient&, const Tovik::Message&) {}, [](Tovik::AsyncClient&) {},
        1);
    script.expire(1);
    script.readable(listening);
    client.asyncSendMsg(object());
    script.readable(script.watch(3).fd);
    script.readable(script.watch(2).fd);
  }
  static Tovik::Message object() {
    Tovik::Message msg;
    msg.SetObject();
    return msg;
  }
  /// Errors in every source file and nearly every function, each of which has something to log.
  void failEverywhere() {
    const std::string name = freshName();
    Tovik::Server server(name.c_str(), nullptr, [](int, unsigned, unsigned) { return true; });
    auto [fd, peer] = Peer::pair();
    Tovik::Connection connection(fd, nullptr);
    const Tovik::Client client(name.c_str());
    const Fail accept(Call::kAccept, EMFILE);
    server.readFdEvent(-1);
    server.validateConnection(-1);
    const Fail write(Call::kWrite, ENOBUFS);
    connection.sendMsg(object());
    client.sendMsg(object(), false);
    peer.send("{]");
    connection.readFdEvent(fd);
    const Fail read(Call::kRead, ECONNRESET);
    connection.readFdEvent(fd);
    const Fail flags(Call::kGetFl, EPERM);
    Tovik::AsyncClient(name.c_str(), nullptr, nullptr, 1).timeout();
  }
  static int count(const Lines& lines, const std::string& line) {
    return static_cast<int>(std::count(lines.begin(), lines.end(), line));
  }

  Script script;
};

TEST_F(Diagnostics, BuildNoStreamAndAskForNoErrorTextWhileNothingIsEnabled) {
  workEverywhere();
  failEverywhere();
  const Lines lines = script.take();
  EXPECT_EQ(count(lines, "stream"), 0);
  EXPECT_EQ(count(lines, "strerror"), 0);
  EXPECT_GT(lines.size(), 30U);
}

TEST_F(Diagnostics, AskForNoErrorTextWhileErrorsAreNotEnabled) {
  setLevels(0xE);
  failEverywhere();
  const Lines lines = script.take();
  EXPECT_EQ(count(lines, "strerror"), 0);
  EXPECT_GT(count(lines, "stream"), 0);
}

TEST_F(Diagnostics, MakeOneStreamForEachRecordAndDropItAtOnce) {
  setLevels(0xF);
  workEverywhere();
  failEverywhere();
  const Lines lines = script.take();
  ASSERT_GT(count(lines, "stream"), 15);
  EXPECT_EQ(count(lines, "stream"), count(lines, "streamGone"));
  for (std::size_t i = 1; i < lines.size(); ++i) {
    if (lines[i] == "streamGone") {
      EXPECT_EQ(lines[i - 1].substr(0, 7), "output ") << lines[i - 1];
    }
  }
}

TEST_F(Diagnostics, LookAtTheEnabledLevelsAnewForEachRecord) {
  auto [fd, peer] = Peer::pair();
  Tovik::Connection connection(fd, nullptr);
  const auto recordsAt = [&](unsigned mask) {
    setLevels(mask);
    clearOrigins();
    connection.sendMsg(object());
    return origins().size();
  };
  EXPECT_EQ(recordsAt(0), 0U);
  EXPECT_EQ(recordsAt(4), 1U);
  EXPECT_EQ(recordsAt(12), 2U);
  EXPECT_EQ(recordsAt(8), 1U);
  EXPECT_EQ(recordsAt(3), 0U);
}

TEST_F(Diagnostics, ComeThroughOneHandleForEachSourceFile) {
  setLevels(0xF);
  workEverywhere();
  failEverywhere();
  std::map<std::string, std::set<int>> handles;
  std::set<int> all;
  for (const auto& origin : origins()) {
    handles[origin.file].insert(origin.handle);
    all.insert(origin.handle);
  }
  ASSERT_EQ(handles.size(), 4U);
  for (const char* file : {"Async", "Client", "Connection", "Server"}) {
    EXPECT_EQ(handles[std::string("Api/Json/") + file].size(), 1U) << file;
  }
  EXPECT_EQ(all.size(), 4U);
  EXPECT_EQ(handleRequests(), 4);
}

TEST_F(Diagnostics, GiveEachStatementItsOwnLine) {
  setLevels(0xF);
  failEverywhere();
  std::set<std::pair<std::string, int>> lines;
  for (const auto& origin : origins()) {
    EXPECT_GT(origin.line, 10);
    lines.emplace(origin.file, origin.line);
  }
  EXPECT_GE(lines.size(), 12U);
}

TEST_F(Diagnostics, EndAtAnErrorTextThatIsMissing) {
  const auto [fd, peer] = Peer::pair();
  Tovik::Connection connection(fd, nullptr);
  setLevels(1);
  script.take();
  script.strerrorKnowsNothing = true;
  const Fail broken(Call::kWrite, ENOBUFS);
  connection.sendMsg(object());
  script.strerrorKnowsNothing = false;
  const Lines lines = script.take();
  EXPECT_EQ(count(lines,
                  "output 0 Api/Json/Async flushQueue: "
                  "AsyncSender::flushQueue(): write error "),
            1);
  EXPECT_EQ(lines.back(), "interest 1 on");
}

// --- in a process of its own, where nothing has been logged before ---

/// Ends the process: 0 if the condition holds.
[[noreturn]] void endWith(bool good) {
  std::_Exit(good ? 0 : 1);
}

TEST_F(Diagnostics, RequestNoHandleForMessagesAndExceptions) {
  EXPECT_EXIT(
      {
        setLevels(0xF);
        Tovik::Message::toStr(object(), true);
        const Tovik::SocketException exception(EPIPE);
        endWith(handleRequests() == 0);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(Diagnostics, RequestTheHandleAtTheFirstStatementEvenIfItsLevelIsDisabled) {
  EXPECT_EXIT(
      {
        script.showsHandleRequests = true;
        const Tovik::Server first(freshName(), nullptr, nullptr);
        const Tovik::Server second(freshName(), nullptr, nullptr);
        endWith(script.take() == Lines{"getFdControl 1", "socket a", "bind a 110", "listen a 5",
                                       "attach 1 a", "handle Tovik false", "getFdControl 2",
                                       "socket b", "bind b 110", "listen b 5", "attach 2 b"});
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(Diagnostics, RequestTheHandleOnceInEachSourceFileHoweverMuchIsWritten) {
  EXPECT_EXIT(
      {
        script.showsHandleRequests = true;
        setLevels(0xF);
        workEverywhere();
        failEverywhere();
        endWith(count(script.take(), "handle Tovik false") == 4 && handleRequests() == 4);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(Diagnostics, RequestTheHandleOnceWhenManyThreadsAreFirst) {
  EXPECT_EXIT(
      {
        class Sender : public Tovik::AsyncSender {
          void readFdEvent(int /*fd*/) override {}
        };
        std::vector<std::thread> threads;
        for (int i = 0; i < 8; ++i) {
          threads.emplace_back([] { Sender().asyncSendMsg(object()); });
        }
        for (auto& thread : threads) {
          thread.join();
        }
        endWith(handleRequests() == 1);
      },
      ::testing::ExitedWithCode(0), "");
}

// --- the exception, as the base library is given it ---

TEST_F(Diagnostics, BlameTheSystemForASocketException) {
  const Tovik::SocketException exception(ECONNREFUSED);
  EXPECT_TRUE(exception.external());
  EXPECT_STREQ(exception.what(), "Connection refused");
  const Kelvo::Exception& base = exception;
  EXPECT_STREQ(base.name(), "Tovik::SocketException");
}

// --- the program itself ---

int notice(dl_phdr_info* info, std::size_t /*size*/, void* found) {
  const std::string path = info->dlpi_name;
  if (path.find("libKelvo") != std::string::npos || path.find("libTovik") != std::string::npos) {
    *static_cast<std::string*>(found) += path;
  }
  return 0;
}

TEST(ScriptedBaseLibrary, StandsInThePlaceOfTheRealOne) {
  std::string found;
  dl_iterate_phdr(notice, &found);
  EXPECT_EQ(found, "");
}

}  // namespace
