// The queued sender, through a small subclass, on real sockets.

#include "Api/Json/Async.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <stdexcept>
#include <utility>

#include "Kelvo/Exception.h"
#include "tests/support/Memory.h"
#include "tests/tovik/Peers.h"

using Faults::Call;
using Faults::Fail;
using Faults::Trace;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

class Subject : public Tovik::AsyncSender {
 public:
  using AsyncSender::fdControl_;
  using AsyncSender::readBufferSize_;
  using AsyncSender::sendQueue_;

  explicit Subject(int* terminations = nullptr) : terminations_(terminations) {}

  void readFdEvent(int /*fd*/) override {
    Kelvo::String text;
    if (throwsOnRead) {
      asyncRead(text);
      throw std::runtime_error("from the subclass");
    }
    if (asyncRead(text) < 0 || text.empty()) {
      terminateConnection();
    }
  }

  void terminateConnection() override {
    AsyncSender::terminateConnection();
    if (terminations_ != nullptr) {
      ++*terminations_;
    }
  }

  bool throwsOnRead = false;

 private:
  int* const terminations_;
};

class AsyncSender : public ::testing::Test {
 protected:
  /// Gives the sender one end of a pair; the other end is `peer`.
  void attach() {
    auto [ours, theirs] = nonBlockingPair();
    fd = ours.get();
    sender.setFd(ours.release());
    peer = std::move(theirs);
  }

  void send(const std::string& text) { sender.asyncSendMsg(parsed(text)); }

  /// Sends until the socket takes no more, with nothing injected.
  int fillSocket() {
    int sent = 0;
    for (; sender.sendQueue_.empty(); ++sent) {
      send(R"({"fill":1})");
    }
    return sent;
  }

  /// Leaves a backlog of so many messages, as a full socket does.
  void leaveBacklog(int count = 1) {
    const Fail full(Call::kWrite, EAGAIN);
    for (int i = 1; i <= count; ++i) {
      send(R"({"n":)" + std::to_string(i) + "}");
    }
  }

  std::vector<std::string> queued() const {
    std::vector<std::string> texts;
    for (const auto& text : sender.sendQueue_) {
      texts.emplace_back(text.data(), text.size());
    }
    return texts;
  }

  /// What one `asyncRead` yields, as "result:text"; "out" before the call is `before`.
  std::string read(const std::string& before = "") {
    Kelvo::String out(before);
    const int result = sender.asyncRead(out);
    return std::to_string(result) + ":" + std::string(std::string_view(out));
  }

  static std::string sendLine(const std::string& text) {
    return "3 Api/Json/Async asyncSendMsg: AsyncSender::asyncSendMSg() -> " + text;
  }
  static std::string flushLine(int size) {
    return "2 Api/Json/Async flushQueue: AsyncSender::flushQueue(), queue size = " +
           std::to_string(size);
  }
  static std::string terminateLine(int descriptor) {
    return "1 Api/Json/Async terminateConnection: AsyncSender::terminateConnection(): fd = " +
           std::to_string(descriptor);
  }
  static std::string writeErrorLine(int error) {
    return std::string("0 Api/Json/Async flushQueue: AsyncSender::flushQueue(): write error ") +
           std::strerror(error);
  }
  static std::string readErrorLine(int error) {
    return std::string("0 Api/Json/Async asyncRead: AsyncSender::asynRead(): read failed -> ") +
           std::strerror(error);
  }

  int terminations = 0;
  Subject sender{&terminations};
  int fd = -1;
  Fd peer;
};

constexpr auto kOne = R"({"n":1})";
constexpr auto kTwo = R"({"n":2})";
constexpr auto kThree = R"({"n":3})";
constexpr auto kFour = R"({"n":4})";

// --- detached ---

TEST_F(AsyncSender, StartsDetachedWithAnEmptyQueueAndABufferOf4096Bytes) {
  EXPECT_FALSE(sender.isAttached());
  EXPECT_TRUE(sender.fdControl_.empty());
  EXPECT_TRUE(sender.sendQueue_.empty());
  EXPECT_EQ(sender.readBufferSize_, 4096);
}

TEST_F(AsyncSender, QueuesAndWritesNothingWhileDetached) {
  CapturedLog log;
  Trace trace;
  send(kOne);
  sender.flushQueue();
  EXPECT_THAT(queued(), ElementsAre(kOne));
  EXPECT_EQ(trace.count(Call::kWrite), 0);
  EXPECT_THAT(log.lines(), ElementsAre(sendLine(kOne)));
}

TEST_F(AsyncSender, KeepsWhatItQueuedDetachedUntilTheNextMessageAfterAttaching) {
  send(kOne);
  send(kTwo);
  attach();
  turnUntilIdle();
  EXPECT_THAT(queued(), ElementsAre(kOne, kTwo));
  EXPECT_FALSE(wantsWriteEvents(fd));
  EXPECT_EQ(rawReceiveNow(peer.get()), "<nothing>");
  send(kThree);
  EXPECT_THAT(receivedBy(peer.get()), ElementsAre(kOne, kTwo, kThree));
}

TEST_F(AsyncSender, RefusesToReadWhileDetachedAndLeavesTheOutputAlone) {
  CapturedLog log;
  Trace trace;
  EXPECT_EQ(read("before"), "-1:before");
  EXPECT_EQ(trace.count(Call::kRead), 0);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(AsyncSender, TerminatesNothingWhileDetachedAndKeepsTheQueue) {
  send(kOne);
  CapturedLog log;
  Trace trace;
  sender.terminateConnection();
  EXPECT_THAT(queued(), ElementsAre(kOne));
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_THAT(trace.calls(), IsEmpty());
}

// --- sending ---

TEST_F(AsyncSender, WritesEachMessageAtOnceAsOneRecordOfItsExactSize) {
  attach();
  Trace trace;
  send(kOne);
  send(R"({ "spaced" : [ 1, 2 ] })");
  const auto writes = trace.of(Call::kWrite);
  ASSERT_EQ(writes.size(), 2U);
  EXPECT_EQ(writes[0].fd, fd);
  EXPECT_EQ(writes[0].bytes, kOne);
  EXPECT_EQ(writes[1].bytes, R"({"spaced":[1,2]})");
  EXPECT_EQ(trace.count(Call::kEpollCtl), 0);
  EXPECT_EQ(watchedEvents(fd), unsigned{EPOLLIN}) << "no write events";
  EXPECT_THAT(receivedBy(peer.get()), ElementsAre(kOne, R"({"spaced":[1,2]})"));
}

// --- a socket that is full ---

TEST_F(AsyncSender, WantsWriteEventsExactlyWhileABacklogRemains) {
  attach();
  Trace trace;
  fillSocket();
  EXPECT_TRUE(wantsWriteEvents(fd));
  send(kOne);
  EXPECT_EQ(epollControls(fd, EPOLL_CTL_MOD, trace), 1);
  EXPECT_FALSE(turn());  // full: no write event yet
  receivedBy(peer.get());
  EXPECT_TRUE(turn());
  EXPECT_TRUE(sender.sendQueue_.empty());
  EXPECT_FALSE(wantsWriteEvents(fd));
  EXPECT_EQ(epollControls(fd, EPOLL_CTL_MOD, trace), 2);
  EXPECT_EQ(receivedBy(peer.get()).back(), kOne);
  EXPECT_FALSE(turn());
}

TEST_F(AsyncSender, WritesABacklogInOneWriteEventAndStopsAtTheNextRefusal) {
  attach();
  leaveBacklog(3);
  EXPECT_THAT(queued(), ElementsAre(kOne, kTwo, kThree));
  {
    const Fail fullAgain(Call::kWrite, EAGAIN, 1, 1);
    EXPECT_TRUE(turn());
  }
  EXPECT_THAT(queued(), ElementsAre(kTwo, kThree));
  ASSERT_TRUE(turnUntil([&] { return sender.sendQueue_.empty(); }));
  EXPECT_THAT(receivedBy(peer.get()), ElementsAre(kOne, kTwo, kThree));
  EXPECT_FALSE(wantsWriteEvents(fd));
}

TEST_F(AsyncSender, TriesTheFrontMessageOnlyOnceWhileTheSocketIsFull) {
  attach();
  CapturedLog log;
  const Fail full(Call::kWrite, EAGAIN);
  send(kOne);
  Trace trace;
  send(kTwo);
  const auto writes = trace.of(Call::kWrite);
  ASSERT_EQ(writes.size(), 1U);
  EXPECT_EQ(writes[0].bytes, kOne);
  EXPECT_THAT(log.lines(), ElementsAre(sendLine(kOne), flushLine(1), sendLine(kTwo), flushLine(2)))
      << "a full socket is no error";
}

TEST_F(AsyncSender, QueuesWithoutABound) {
  constexpr int kCount = 3000;
  for (int i = 0; i < kCount; ++i) {
    send("{\"n\":" + std::to_string(i) + "}");
  }
  attach();
  sender.flushQueue();
  int next = 0;
  EXPECT_TRUE(turnUntil([&] {
    for (const auto& record : receivedBy(peer.get())) {
      next += record == "{\"n\":" + std::to_string(next) + "}" ? 1 : 0;
    }
    return next == kCount;
  }));
  EXPECT_TRUE(sender.sendQueue_.empty());
}

TEST_F(AsyncSender, FlushesOnAWriteEventWhateverItsArgument) {
  attach();
  leaveBacklog();
  CapturedLog log;
  sender.writeFdEvent(-1);
  EXPECT_THAT(log.lines(), ElementsAre(flushLine(1)));
  EXPECT_THAT(receivedBy(peer.get()), ElementsAre(kOne));
}

TEST_F(AsyncSender, SwitchesWriteEventsOffWhenFlushedWithAnEmptyQueue) {
  attach();
  leaveBacklog();
  sender.clearQueue();
  EXPECT_TRUE(wantsWriteEvents(fd));
  CapturedLog log;
  Trace trace;
  sender.flushQueue();
  EXPECT_FALSE(wantsWriteEvents(fd));
  EXPECT_EQ(trace.count(Call::kWrite), 0);
  EXPECT_THAT(log.lines(), ElementsAre(flushLine(0)));
}

TEST_F(AsyncSender, TakesAShortCountForAWrittenMessage) {
  int pipeFds[2];
  ASSERT_EQ(::pipe2(pipeFds, O_NONBLOCK), 0);
  const Fd reader(pipeFds[0]);
  sender.setFd(pipeFds[1]);
  const std::string tooMuch = messageOfSize(100000);  // a pipe takes part of it
  send(tooMuch);
  EXPECT_TRUE(sender.sendQueue_.empty());
  EXPECT_FALSE(wantsWriteEvents(pipeFds[1]));
  std::string taken(200000, '\0');
  const auto length = ::read(reader.get(), taken.data(), taken.size());
  ASSERT_GT(length, 0);
  ASSERT_LT(static_cast<std::size_t>(length), tooMuch.size());
  send(kTwo);
  taken.resize(static_cast<std::size_t>(::read(reader.get(), taken.data(), taken.size())));
  EXPECT_EQ(taken, kTwo);
}

// --- a socket that fails ---

TEST_F(AsyncSender, EndsWhenItsPeerIsGone) {
  attach();
  leaveBacklog();
  peer.reset();
  CapturedLog log;
  Trace trace;
  send(kTwo);
  EXPECT_FALSE(sender.isAttached());
  EXPECT_TRUE(sender.sendQueue_.empty());
  EXPECT_FALSE(isOpen(fd));
  EXPECT_EQ(trace.count(Call::kWrite), 1);  // the rest of the queue is not tried
  EXPECT_TRUE(detachedThenClosed(fd, trace));
  EXPECT_EQ(terminations, 2);  // setFd's and this one: an override sees both
  EXPECT_THAT(log.lines(), ElementsAre(sendLine(kTwo), flushLine(2), terminateLine(fd)));
}

TEST_F(AsyncSender, QueuesAgainAfterItsPeerIsGone) {
  attach();
  peer.reset();
  send(kOne);
  Trace trace;
  send(kTwo);
  send(kThree);
  EXPECT_THAT(queued(), ElementsAre(kTwo, kThree));
  EXPECT_EQ(trace.count(Call::kWrite), 0);
  attach();
  send(kFour);
  EXPECT_THAT(receivedBy(peer.get()), ElementsAre(kTwo, kThree, kFour));
}

TEST_F(AsyncSender, EndsInAWriteEventWhenItsPeerIsGone) {
  attach();
  leaveBacklog();
  const Fail gone(Call::kWrite, EPIPE, 1);
  ASSERT_TRUE(turnUntil([&] { return !sender.isAttached(); }));
  EXPECT_EQ(gone.hits(), 1);
  EXPECT_FALSE(isOpen(fd));
  EXPECT_EQ(terminations, 2);
}

TEST_F(AsyncSender, IsNotSlowedByAReaderThatEmptiesTheSocketMeanwhile) {
  attach();
  const Fail full(Call::kWrite, EAGAIN, 20);
  send(kOne);
  for (int turns = 2; turns <= 20; ++turns) {
    ASSERT_TRUE(turn());
    EXPECT_EQ(full.hits(), turns);
  }
  ASSERT_TRUE(turn());
  EXPECT_THAT(receivedBy(peer.get()), ElementsAre(kOne));
}

class AsyncSenderMeeting : public AsyncSender, public ::testing::WithParamInterface<int> {};

TEST_P(AsyncSenderMeeting, LogsEachAttemptAndKeepsItsBacklog) {
  attach();
  CapturedLog log;
  const Fail fail(Call::kWrite, GetParam(), 3);
  send(kOne);
  EXPECT_THAT(log.lines(0), ElementsAre(writeErrorLine(GetParam())));
  EXPECT_TRUE(wantsWriteEvents(fd));
  send(kTwo);
  EXPECT_EQ(log.lines(0).size(), 2U);
  EXPECT_THAT(queued(), ElementsAre(kOne, kTwo));
  ASSERT_TRUE(turnUntil([&] { return sender.sendQueue_.empty(); }));
  EXPECT_THAT(log.lines(0), ElementsAre(writeErrorLine(GetParam()), writeErrorLine(GetParam()),
                                        writeErrorLine(GetParam())));
  EXPECT_THAT(receivedBy(peer.get()), ElementsAre(kOne, kTwo));
  EXPECT_FALSE(wantsWriteEvents(fd));
  EXPECT_EQ(terminations, 1);
}

INSTANTIATE_TEST_SUITE_P(Any, AsyncSenderMeeting,
                         ::testing::Values(EMSGSIZE, ENOBUFS, EINTR, ECONNRESET, ENOMEM, EIO),
                         [](const auto& error) { return std::to_string(error.param); });

TEST_F(AsyncSender, KeepsAMessageThatIsTooLargeForTheSocketAndAllBehindIt) {
  attach();
  CapturedLog log;
  send(messageOfSize(290000));
  send(kTwo);
  EXPECT_EQ(log.lines(0).size(), 2U);
  EXPECT_TRUE(log.has(writeErrorLine(EMSGSIZE)));
  ASSERT_TRUE(turnUntil([&] { return log.lines(0).size() >= 4; }));  // in write events, again
  Trace trace;
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(50);
  while (std::chrono::steady_clock::now() < end) {
    Kelvo::Platform::EventLoop::current().runOnce(std::chrono::milliseconds(1));
  }
  EXPECT_LT(trace.count(Call::kWrite), 12) << "at a falling rate";
  EXPECT_EQ(sender.sendQueue_.size(), 2U);
  EXPECT_TRUE(sender.isAttached());
  EXPECT_EQ(rawReceiveNow(peer.get()), "<nothing>");
  sender.clearQueue();
  send(kThree);
  EXPECT_THAT(receivedBy(peer.get()), ElementsAre(kThree));
}

// --- reading ---

TEST_F(AsyncSender, ReadsOneRecordAtATime) {
  attach();
  rawSend(peer.get(), "one");
  rawSend(peer.get(), "two");
  EXPECT_EQ(read("cleared"), "0:one");
  EXPECT_EQ(read(), "0:two");
}

TEST_F(AsyncSender, AppendsTheNextRecordToOneOf4095Bytes) {
  attach();
  rawSend(peer.get(), messageOfSize(4095));
  rawSend(peer.get(), messageOfSize(4095, 'y'));
  rawSend(peer.get(), kThree);
  rawSend(peer.get(), kFour);
  EXPECT_EQ(read(), "0:" + messageOfSize(4095) + messageOfSize(4095, 'y') + kThree);
  EXPECT_EQ(read(), std::string("0:") + kFour);
}

TEST_F(AsyncSender, CutsARecordAtItsFirstNulByte) {
  attach();
  rawSend(peer.get(), std::string("ab\0cd\0e", 7));
  EXPECT_EQ(read(), "0:ab");
  rawSend(peer.get(), std::string("\0abc", 4));
  EXPECT_EQ(read(), "0:");
}

TEST_F(AsyncSender, CutsEachChunkAtItsOwnNulByte) {
  attach();
  std::string first(4095, 'x');
  first[2] = '\0';
  rawSend(peer.get(), first);
  rawSend(peer.get(), std::string("yz\0", 3));
  EXPECT_EQ(read(), "0:xxyz");
}

TEST_F(AsyncSender, ReadsNothingFromAPeerThatHasClosed) {
  attach();
  peer.reset();
  CapturedLog log;
  EXPECT_EQ(read("before"), "0:");
  EXPECT_TRUE(sender.isAttached());
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(AsyncSender, TakesAnEmptySocketForNoError) {
  attach();
  CapturedLog log;
  EXPECT_EQ(read("before"), "0:");
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(AsyncSender, LogsAFailedReadAndLeavesTheRestToItsSubclass) {
  attach();
  for (const int error : {ECONNRESET, EINTR, EIO}) {
    CapturedLog log;
    const Fail fail(Call::kRead, error, 1);
    EXPECT_EQ(read("before"), "-1:");
    EXPECT_THAT(log.lines(), ElementsAre(readErrorLine(error)));
    EXPECT_TRUE(sender.isAttached());
  }
}

TEST_F(AsyncSender, KeepsWhatItReadBeforeAFailedRead) {
  attach();
  rawSend(peer.get(), messageOfSize(4095));
  const Fail fail(Call::kRead, EIO, 1, 1);
  EXPECT_EQ(read(), "-1:" + messageOfSize(4095));
}

TEST_F(AsyncSender, LetsItsSubclassesExceptionsThroughTheLoop) {
  attach();
  sender.throwsOnRead = true;
  rawSend(peer.get(), kOne);
  EXPECT_THROW(turn(), std::runtime_error);
  EXPECT_TRUE(sender.isAttached());
}

// --- the end of a connection ---

TEST_F(AsyncSender, IgnoresAFailingClose) {
  attach();
  const Fail fail(Call::kClose, EIO);
  CapturedLog log;
  sender.terminateConnection();
  EXPECT_FALSE(sender.isAttached());
  sender.terminateConnection();
  EXPECT_THAT(log.lines(), ElementsAre(terminateLine(fd)));
  EXPECT_EQ(fail.hits(), 1);
}

TEST_F(AsyncSender, GivesBackTheStorageOfALongBacklog) {
  for (const bool ends : {false, true}) {
    attach();
    const std::size_t before = Faults::allocatedBytes();
    leaveBacklog(20000);
    ASSERT_GT(Faults::allocatedBytes(), before + 20000 * sizeof(Kelvo::String));
    ends ? sender.terminateConnection() : sender.clearQueue();
    EXPECT_TRUE(sender.sendQueue_.empty());
    EXPECT_LT(Faults::allocatedBytes(), before + 2000);
  }
}

TEST_F(AsyncSender, SendsABacklogOfAnyLengthInItsOrder) {
  attach();
  for (int backlog = 1; backlog <= 40; ++backlog) {
    std::vector<std::string> sent;
    {
      const Fail full(Call::kWrite, EAGAIN);
      for (int i = 0; i < backlog; ++i) {
        sent.push_back(R"({"n":)" + std::to_string(i) + "}");
        send(sent.back());
      }
    }
    std::vector<std::string> received;
    while (!sender.sendQueue_.empty()) {
      sender.flushQueue();
      const auto more = receivedBy(peer.get());
      received.insert(received.end(), more.begin(), more.end());
    }
    EXPECT_EQ(received, sent);
  }
}

TEST_F(AsyncSender, GivesBackTheStorageOfABacklogThatWasSent) {
  // A block of the queue holds 16 texts; the last one is where a block ends, begins, and beyond.
  for (const int backlog : {17, 32, 33, 20000, 20001, 20002}) {
    attach();
    const std::size_t before = Faults::allocatedBytes();
    leaveBacklog(backlog);
    for (; !sender.sendQueue_.empty(); receivedBy(peer.get())) {
      sender.flushQueue();
    }
    (backlog % 2 == 0) ? sender.clearQueue() : sender.terminateConnection();
    EXPECT_LT(Faults::allocatedBytes(), before + 200) << backlog;
    sender.terminateConnection();
  }
}

TEST_F(AsyncSender, EndsAConnectionWithoutMemory) {
  attach();
  leaveBacklog(100);
  {
    const Faults::NoMemory noMemory;
    sender.terminateConnection();
  }
  EXPECT_EQ(rawReceive(peer.get()), "<end>");
  attach();
  send(kTwo);
  EXPECT_THAT(receivedBy(peer.get()), ElementsAre(kTwo));  // and nothing of the former peer's
}

TEST_F(AsyncSender, NeedsNoMemoryToEndAConnectionThatHadNoBacklog) {
  attach();
  for (int i = 0; i < 100; ++i) {
    send(kOne);
  }
  const int failedBefore = Faults::failedAllocations();
  const Faults::NoMemory noMemory;
  sender.terminateConnection();
  EXPECT_EQ(Faults::failedAllocations(), failedBefore);
}

TEST_F(AsyncSender, IsDestroyedWithoutMemory) {
  auto other = std::make_unique<Subject>();
  auto [ours, theirs] = nonBlockingPair();
  other->setFd(ours.release());
  {
    const Fail full(Call::kWrite, EAGAIN);
    for (int i = 0; i < 100; ++i) {
      other->asyncSendMsg(parsed(kOne));
    }
  }
  const Faults::NoMemory noMemory;
  other.reset();
}

// --- a log sink that uses the sender ---

class AsyncSenderLog : public AsyncSender {
 protected:
  /// At each record whose text holds `text`, the sink does that.
  void onRecord(const std::string& text, std::function<void()> action) {
    sink_.emplace(0xF, [text, action = std::move(action)](const auto& record) {
      if (record.text.find(text) != std::string::npos) {
        action();
      }
    });
  }

 private:
  std::optional<LogSink> sink_;
};

TEST_F(AsyncSenderLog, MayEndAConnectionThatIsAboutToBeFlushedOrOverItsWriteError) {
  for (const char* text : {"flushQueue(), queue size", "write error"}) {
    attach();
    onRecord(text, [this] { sender.terminateConnection(); });
    const Fail tooLong(Call::kWrite, EMSGSIZE);
    send(kOne);
    EXPECT_EQ(rawReceive(peer.get()), "<end>");
    EXPECT_FALSE(sender.isAttached());
  }
}

TEST_F(AsyncSenderLog, MayEndTheConnectionThatIsEnding) {
  attach();
  onRecord("terminateConnection()", [this] { sender.terminateConnection(); });
  Trace trace;
  sender.terminateConnection();
  EXPECT_EQ(trace.count(Call::kClose), 1);
  EXPECT_EQ(rawReceive(peer.get()), "<end>");
}

TEST_F(AsyncSenderLog, MayAttachAnotherSocketWhileOneEnds) {
  attach();
  const int first = fd;
  const Fd firstPeer = std::move(peer);
  onRecord("terminateConnection(): fd = " + std::to_string(first), [this] {
    if (peer.get() < 0) {
      attach();
    }
  });
  sender.terminateConnection();
  EXPECT_EQ(rawReceive(firstPeer.get()), "<end>");
  ASSERT_TRUE(sender.isAttached());
  send(kOne);
  EXPECT_THAT(receivedBy(peer.get()), ElementsAre(kOne));
}

TEST_F(AsyncSenderLog, MaySendOverTheSenderThatLogs) {
  attach();
  bool sent = false;
  onRecord("asyncSendMSg()", [&] {
    if (!std::exchange(sent, true)) {
      send(kOne);
    }
  });
  send(kTwo);
  EXPECT_THAT(receivedBy(peer.get()), ElementsAre(kOne, kTwo));
}

TEST_F(AsyncSender, ReplacesTheSocketItHolds) {
  attach();
  const int oldFd = fd;
  const Fd oldPeer = std::move(peer);
  leaveBacklog();
  CapturedLog log;
  Trace trace;
  attach();
  EXPECT_TRUE(detachedThenClosed(oldFd, trace));
  EXPECT_THAT(log.lines(), ElementsAre(terminateLine(oldFd)));
  EXPECT_EQ(rawReceive(oldPeer.get()), "<end>");
  EXPECT_EQ(watchedEvents(fd), unsigned{EPOLLIN});  // the old backlog is gone
  EXPECT_TRUE(sender.sendQueue_.empty());
  send(kTwo);
  EXPECT_THAT(receivedBy(peer.get()), ElementsAre(kTwo));
}

TEST_F(AsyncSender, LeavesADescriptorThatCannotBeWatchedToItsCaller) {
  auto [ours, theirs] = rawPair();
  send(kOne);
  {
    const Fail fail(Call::kEpollCtl, ENOSPC, 1);
    EXPECT_THROW(sender.setFd(ours.get()), Kelvo::Exception);
  }
  EXPECT_FALSE(sender.isAttached());
  EXPECT_TRUE(isOpen(ours.get()));
  send(kTwo);
  EXPECT_THAT(queued(), ElementsAre(kOne, kTwo));
  setNonBlocking(ours.get());
  sender.setFd(ours.release());
  sender.flushQueue();
  EXPECT_THAT(receivedBy(theirs.get()), ElementsAre(kOne, kTwo));
}

TEST_F(AsyncSender, HasGivenUpTheOldSocketWhenTheNewOneCannotBeWatched) {
  attach();
  const Fd unwatchable(::open("/dev/null", O_RDWR | O_CLOEXEC));
  EXPECT_THROW(sender.setFd(unwatchable.get()), Kelvo::Exception);
  EXPECT_FALSE(sender.isAttached());
  EXPECT_FALSE(isOpen(fd));
  EXPECT_TRUE(isOpen(unwatchable.get()));
}

TEST_F(AsyncSender, IsDestroyedSilentlyWhenDetached) {
  auto doomed = std::make_unique<Subject>();
  doomed->asyncSendMsg(parsed(kOne));
  CapturedLog log;
  Trace trace;
  doomed.reset();
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_THAT(trace.calls(), IsEmpty());
}

}  // namespace
