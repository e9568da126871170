#include "Kelvo/Platform/Debug.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <memory>
#include <regex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/Faults.h"
#include "tests/support/Support.h"

using Kelvo::Platform::_getRawDebugHandler;
using Kelvo::Platform::DebugRecord;
using Kelvo::Platform::DebugStream;
using Kelvo::Platform::RawDebugHandler;
using Kelvo::Platform::setDebugLevels;
using Kelvo::Platform::setDebugSink;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

void emit(RawDebugHandler* handler, const std::string& text) {
  DebugStream stream;
  stream << text;
  handler->output(stream, 2, "a/File", "function", 34);
}

/// A channel that no other test uses.
class DebugChannel : public testing::Test {
 protected:
  ~DebugChannel() override { setDebugSink(name_, nullptr); }

  void collect() {
    setDebugSink(name_, [this](const DebugRecord& record) { texts_.push_back(record.text); });
  }
  void log(const std::string& text) { emit(handler_, text); }

  const std::string name_ = uniqueName();
  RawDebugHandler* const handler_ = _getRawDebugHandler(name_, false);
  std::vector<std::string> texts_;
};

/// What arrives on standard error meanwhile.
std::string standardErrorDuring(const std::function<void()>& action) {
  const Fd file(memfd_create("stderr", MFD_CLOEXEC));
  const Fd before(dup(STDERR_FILENO));
  dup2(file.get(), STDERR_FILENO);
  action();
  dup2(before.get(), STDERR_FILENO);
  std::string text(65536, '\0');
  text.resize(static_cast<std::size_t>(pread(file.get(), text.data(), text.size(), 0)));
  return text;
}

TEST_F(DebugChannel, HasAllLevelsOffAtFirst) {
  for (int level = 0; level < 32; ++level) {
    EXPECT_FALSE(handler_->enabled(level)) << level;
  }
}

TEST_F(DebugChannel, StartsWithErrorsIfItsMakerAsksForThem) {
  const auto* handler = _getRawDebugHandler(uniqueName(), true);

  EXPECT_TRUE(handler->enabled(0));
  EXPECT_FALSE(handler->enabled(1));
  EXPECT_FALSE(handler->enabled(31));
}

TEST_F(DebugChannel, IgnoresTheWishForErrorsOnceItExists) {
  _getRawDebugHandler(name_, true);
  EXPECT_FALSE(handler_->enabled(0));

  const auto configured = uniqueName();
  setDebugLevels(configured, 4);
  EXPECT_FALSE(_getRawDebugHandler(configured, true)->enabled(0));
  EXPECT_TRUE(_getRawDebugHandler(configured, true)->enabled(2));
}

TEST_F(DebugChannel, StaysOffWhenItIsMadeByItsConfiguration) {
  const auto withSink = uniqueName();
  setDebugSink(withSink, [](const DebugRecord&) {});
  const auto withLevels = uniqueName();
  setDebugLevels(withLevels, 0);

  EXPECT_FALSE(_getRawDebugHandler(withSink, true)->enabled(0));
  EXPECT_FALSE(_getRawDebugHandler(withLevels, true)->enabled(0));
  setDebugSink(withSink, nullptr);
}

TEST_F(DebugChannel, IsTheSameForTheSameName) {
  RawDebugHandler* fromAnotherThread = nullptr;
  std::thread([&] { fromAnotherThread = _getRawDebugHandler(name_, true); }).join();

  EXPECT_NE(handler_, nullptr);
  EXPECT_EQ(_getRawDebugHandler(name_, false), handler_);
  EXPECT_EQ(fromAnotherThread, handler_);
  EXPECT_NE(_getRawDebugHandler(uniqueName(), false), handler_);
}

TEST_F(DebugChannel, IsNamedByAllTheBytesOfItsName) {
  const auto* other = _getRawDebugHandler(name_ + std::string("\0x", 2), false);

  EXPECT_NE(other, handler_);
}

TEST_F(DebugChannel, EnablesExactlyTheLevelsOfItsMask) {
  for (int bit = 0; bit < 32; ++bit) {
    setDebugLevels(name_, 1U << bit);
    for (int level = 0; level < 32; ++level) {
      EXPECT_EQ(handler_->enabled(level), level == bit);
    }
  }
}

TEST_F(DebugChannel, ChangesItsLevelsWhileTheProgramRuns) {
  setDebugLevels(name_, 0b101);
  EXPECT_TRUE(handler_->enabled(0) && !handler_->enabled(1) && handler_->enabled(2));
  setDebugLevels(name_, 0b010);
  EXPECT_TRUE(!handler_->enabled(0) && handler_->enabled(1) && !handler_->enabled(2));
  handler_->setMask(0);
  EXPECT_FALSE(handler_->enabled(1));
}

TEST_F(DebugChannel, LeavesTheLevelsOfOthersAlone) {
  const auto* other = _getRawDebugHandler(uniqueName(), false);
  setDebugLevels(name_, ~0U);

  EXPECT_FALSE(other->enabled(0));
}

TEST_F(DebugChannel, TakesLevelsFromAnotherThread) {
  std::atomic<bool> seen{false};
  std::thread reader([&] {
    while (!handler_->enabled(3)) {
      std::this_thread::yield();
    }
    seen = true;
  });
  setDebugLevels(name_, 8);
  reader.join();

  EXPECT_TRUE(seen);
}

TEST_F(DebugChannel, HandsAllFieldsToItsSink) {
  std::vector<DebugRecord> records;
  setDebugSink(name_, [&](const DebugRecord& record) { records.push_back(record); });
  log("the text");

  ASSERT_EQ(records.size(), 1U);
  EXPECT_EQ(records[0].channel, name_);
  EXPECT_EQ(records[0].level, 2);
  EXPECT_EQ(records[0].file, "a/File");
  EXPECT_EQ(records[0].function, "function");
  EXPECT_EQ(records[0].line, 34);
  EXPECT_EQ(records[0].text, "the text");
}

TEST_F(DebugChannel, HandsLineBreaksAndNulBytesToASinkUnchanged) {
  collect();
  log(std::string("a\nb\0c", 5));

  EXPECT_THAT(texts_, ElementsAre(std::string("a\nb\0c", 5)));
}

TEST_F(DebugChannel, KeepsWhatASinkGetsFromStandardError) {
  collect();
  EXPECT_EQ(standardErrorDuring([&] { log("for the sink"); }), "");
}

TEST_F(DebugChannel, CallsTheSinkOnTheThreadThatLogs) {
  std::thread::id sinkThread;
  setDebugSink(name_, [&](const DebugRecord&) { sinkThread = std::this_thread::get_id(); });
  std::thread logger([&] { log("text"); });
  const auto loggerThread = logger.get_id();
  logger.join();

  EXPECT_EQ(sinkThread, loggerThread);
}

TEST_F(DebugChannel, CallsTheSinkForOneRecordAtATime) {
  std::atomic<int> inside{0};
  std::atomic<int> most{0};
  int records = 0;  // guarded by the promise under test
  setDebugSink(name_, [&](const DebugRecord&) {
    most = std::max<int>(most, ++inside);
    ++records;
    std::this_thread::yield();
    --inside;
  });
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([this] {
      for (int j = 0; j < 500; ++j) {
        log("text");
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }

  EXPECT_EQ(most, 1);
  EXPECT_EQ(records, 2000);
}

TEST_F(DebugChannel, DropsWhatItsSinkThrowsAndGoesOn) {
  setDebugSink(name_, [this](const DebugRecord& record) {
    texts_.push_back(record.text);
    throw std::runtime_error("from the sink");
  });
  log("first");
  log("second");

  EXPECT_THAT(texts_, ElementsAre("first", "second"));
}

TEST_F(DebugChannel, DropsWhatItsSinkLogsOnIt) {
  setDebugSink(name_, [this](const DebugRecord& record) {
    texts_.push_back(record.text);
    log("from the sink");
  });
  EXPECT_EQ(standardErrorDuring([&] {
              log("first");
              log("second");
            }),
            "");

  EXPECT_THAT(texts_, ElementsAre("first", "second"));
}

TEST_F(DebugChannel, LetsItsSinkLogOnAnotherChannel) {
  collect();
  const auto other = uniqueName();
  setDebugSink(other, [this](const DebugRecord& record) { log("via other: " + record.text); });
  emit(_getRawDebugHandler(other, false), "text");
  setDebugSink(other, nullptr);

  EXPECT_THAT(texts_, ElementsAre("via other: text"));
}

TEST_F(DebugChannel, LetsItsSinkReplaceItself) {
  const auto state = std::make_shared<std::string>("first sink: ");
  setDebugSink(name_, [this, state = std::make_unique<std::string>("first sink: ").release(),
                       owner = state](const DebugRecord& record) {
    const std::unique_ptr<std::string> owned(state);
    collect();
    texts_.push_back(*owner + *owned + record.text);  // still alive
  });
  log("a");
  log("b");

  EXPECT_THAT(texts_, ElementsAre("first sink: first sink: a", "b"));
  EXPECT_EQ(state.use_count(), 1) << "the replaced sink was not released";
}

TEST_F(DebugChannel, ReleasesAReplacedSink) {
  const auto state = std::make_shared<int>();
  setDebugSink(name_, [state](const DebugRecord&) {});
  collect();

  EXPECT_EQ(state.use_count(), 1);
}

TEST_F(DebugChannel, GoesBackToStandardErrorWithAnEmptySink) {
  collect();
  setDebugSink(name_, {});

  EXPECT_THAT(standardErrorDuring([&] { log("back again"); }), testing::HasSubstr("back again"));
  EXPECT_THAT(texts_, IsEmpty());
}

TEST_F(DebugChannel, WritesOneLineWithAllFieldsToStandardError) {
  const auto line = standardErrorDuring([&] { log("some text"); });

  const std::regex form(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z )" + name_ +
                        R"( 2 a/File:34 function: some text\n)");
  EXPECT_TRUE(std::regex_match(line, form)) << line;
}

TEST_F(DebugChannel, WritesTheTimeOfDayInUtc) {
  setenv("TZ", "WEST5", 1);
  tzset();
  const auto line = standardErrorDuring([&] { log("text"); });
  unsetenv("TZ");
  tzset();

  tm calendar{};
  ASSERT_NE(strptime(line.c_str(), "%Y-%m-%dT%H:%M:%S", &calendar), nullptr) << line;
  EXPECT_NEAR(static_cast<double>(timegm(&calendar)), static_cast<double>(time(nullptr)), 60);
}

TEST_F(DebugChannel, KeepsLineBreaksInTheTextFromBreakingTheLine) {
  const auto line = standardErrorDuring([&] { log("one\ntwo\n"); });

  EXPECT_THAT(line, testing::EndsWith("function: one two \n"));
  EXPECT_EQ(std::count(line.begin(), line.end(), '\n'), 1);
}

TEST_F(DebugChannel, WritesEachRecordInOnePiece) {
  const Faults::Trace trace;
  standardErrorDuring([&] {
    log("first");
    log("second");
  });

  EXPECT_EQ(trace.count(Faults::Call::kWrite), 2);
}

TEST_F(DebugChannel, DropsARecordThatCannotBeWritten) {
  const auto text = standardErrorDuring([&] {
    const Faults::Fail fail(Faults::Call::kWrite, EIO, 1);
    log("lost");
    EXPECT_EQ(fail.hits(), 1);
    log("kept");
  });

  EXPECT_THAT(text, testing::Not(testing::HasSubstr("lost")));
  EXPECT_THAT(text, testing::HasSubstr("kept"));
}

TEST_F(DebugChannel, LeavesErrnoAsItWas) {
  setDebugSink(name_, [](const DebugRecord&) { errno = EIO; });
  errno = ENOTTY;
  log("text");
  EXPECT_EQ(errno, ENOTTY);

  setDebugSink(name_, [](const DebugRecord&) {
    errno = EIO;
    throw 1;
  });
  errno = ENOTTY;
  log("text");
  EXPECT_EQ(errno, ENOTTY);
}

TEST_F(DebugChannel, LeavesErrnoAsItWasWhenStandardErrorRefuses) {
  int errnoAfter = 0;
  standardErrorDuring([&] {
    const Faults::Fail fail(Faults::Call::kWrite, EIO);
    errno = ENOTTY;
    log("text");
    errnoAfter = errno;
  });

  EXPECT_EQ(errnoAfter, ENOTTY);
}

TEST_F(DebugChannel, TakesASinkFromAnotherThread) {
  std::thread([this] { collect(); }).join();
  log("text");

  EXPECT_THAT(texts_, ElementsAre("text"));
}

}  // namespace
