#include "Kelvo/Platform/Debug.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <locale>
#include <memory>
#include <regex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
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

  const auto withLevels = uniqueName();
  setDebugLevels(withLevels, 4);
  EXPECT_FALSE(_getRawDebugHandler(withLevels, true)->enabled(0));
  EXPECT_TRUE(_getRawDebugHandler(withLevels, true)->enabled(2));

  const auto withSink = uniqueName();
  setDebugSink(withSink, [](const DebugRecord&) {});
  EXPECT_FALSE(_getRawDebugHandler(withSink, true)->enabled(0));
  setDebugSink(withSink, nullptr);
}

TEST_F(DebugChannel, IsTheSameForTheSameName) {
  RawDebugHandler* fromAnotherThread = nullptr;
  std::thread([&] { fromAnotherThread = _getRawDebugHandler(name_, true); }).join();

  EXPECT_NE(handler_, nullptr);
  EXPECT_EQ(_getRawDebugHandler(name_, false), handler_);
  EXPECT_EQ(fromAnotherThread, handler_);
  EXPECT_NE(_getRawDebugHandler(uniqueName(), false), handler_);
  EXPECT_NE(_getRawDebugHandler(name_ + std::string("\0x", 2), false), handler_);
}

TEST_F(DebugChannel, EnablesExactlyTheLevelsOfItsMask) {
  const auto* other = _getRawDebugHandler(uniqueName(), false);
  for (int bit = 0; bit < 32; ++bit) {
    setDebugLevels(name_, 1U << bit);
    for (int level = 0; level < 32; ++level) {
      EXPECT_EQ(handler_->enabled(level), level == bit);
      EXPECT_FALSE(other->enabled(level));
    }
  }
  handler_->setMask(0b101);
  EXPECT_TRUE(handler_->enabled(0) && !handler_->enabled(1) && handler_->enabled(2));
}

TEST_F(DebugChannel, HandsAllFieldsToItsSink) {
  std::vector<DebugRecord> records;
  setDebugSink(name_, [&](const DebugRecord& record) { records.push_back(record); });
  const std::string text("a\nb\0c", 5);
  log(text);

  ASSERT_EQ(records.size(), 1U);
  EXPECT_EQ(records[0].channel, name_);
  EXPECT_EQ(records[0].level, 2);
  EXPECT_EQ(records[0].file, "a/File");
  EXPECT_EQ(records[0].function, "function");
  EXPECT_EQ(records[0].line, 34);
  EXPECT_EQ(records[0].text, text);
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

TEST_F(DebugChannel, GoesBackToStandardErrorWithAnEmptySink) {
  collect();
  setDebugSink(name_, {});

  EXPECT_THAT(standardErrorDuring([&] { log("back again"); }), testing::HasSubstr("back again"));
  EXPECT_THAT(texts_, IsEmpty());
}

TEST_F(DebugChannel, WritesOneLineWithAllFieldsToStandardError) {
  const Faults::Trace trace;
  const auto line = standardErrorDuring([&] { log("some text"); });

  const std::regex form(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z )" + name_ +
                        R"( 2 a/File:34 function: some text\n)");
  EXPECT_TRUE(std::regex_match(line, form)) << line;
  EXPECT_EQ(trace.count(Faults::Call::kWrite), 1) << "in one piece";
}

TEST_F(DebugChannel, MakesControlCharactersVisibleOnStandardError) {
  const std::pair<std::string, std::string> texts[] = {
      {"one\ntwo\n", R"(one\x0atwo\x0a)"},
      {"\r\x1b[2J\t", R"(\x0d\x1b[2J\x09)"},
      {std::string("a\0b\x7f", 4), R"(a\x00b\x7f)"},
      {"\u0080 \u009b1m \u009f", R"(\xc2\x80 \xc2\x9b1m \xc2\x9f)"},  // C1
      {"\x9b"
       "1m \xff \xc0\x80",
       R"(\x9b1m \xff \xc0\x80)"},  // no UTF-8
      {"\xe2\x82", R"(\xe2\x82)"},  // cut short
      {"\xc3(", R"(\xc3()"},
      {"\xe0\x80\x9b \xed\xa0\x80 \xf4\x90\x80\x80",
       R"(\xe0\x80\x9b \xed\xa0\x80 \xf4\x90\x80\x80)"},  // not allowed
      {"\xed\xbf\xbf \xf8\x88\x80\x80\x80", R"(\xed\xbf\xbf \xf8\x88\x80\x80\x80)"},
      {"at the end \u00fc", "at the end \u00fc"},
      {"\u00a0 \u00fc \u07ff \u0800 \u20ac \ud7ff \ue000 \uffff \U00010000 \U0010ffff ~",
       "\u00a0 \u00fc \u07ff \u0800 \u20ac \ud7ff \ue000 \uffff \U00010000 \U0010ffff ~"},
      {R"({"a":"\n"})", R"({"a":"\n"})"},
  };
  for (const auto& [text, shown] : texts) {
    EXPECT_THAT(standardErrorDuring([&, &logged = text] { log(logged); }),
                testing::EndsWith("function: " + shown + "\n"));
  }
}

TEST_F(DebugChannel, DropsARecordThatCannotBeWritten) {
  int errnoAfter = 0;
  const auto text = standardErrorDuring([&] {
    const Faults::Fail fail(Faults::Call::kWrite, EIO, 1);
    errno = ENOTTY;
    log("lost");
    errnoAfter = errno;
    EXPECT_EQ(fail.hits(), 1);
    log("kept");
  });

  EXPECT_EQ(errnoAfter, ENOTTY) << "errno is left as it was";
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

TEST_F(DebugChannel, WritesNumbersAsTheyAreUnderAnyLocale) {
  struct Grouping : std::numpunct<char> {
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
    char do_decimal_point() const override { return ','; }
  };
  const std::locale before = std::locale::global(std::locale(std::locale(), new Grouping));
  {
    DebugStream stream;
    stream << "fd = " << 1000 << ", " << 1234.5;
    collect();
    handler_->output(stream, 0, "file", "function", 1);
  }
  std::locale::global(before);
  EXPECT_THAT(texts_, ElementsAre("fd = 1000, 1234.5"));
}

// --- threads that end, and forked children ---

/// A thread that logs on that channel all the time.
class Chatter {
 public:
  explicit Chatter(RawDebugHandler* handler)
      : thread_([this, handler] {
          while (!enough_) {
            emit(handler, "chatter");
            ++records_;
          }
        }) {
    while (records_ == 0) {
      std::this_thread::yield();
    }
  }
  ~Chatter() {
    enough_ = true;
    thread_.join();
  }

 private:
  std::atomic<bool> enough_{false};
  std::atomic<int> records_{0};
  std::thread thread_;
};

TEST_F(DebugChannel, NeverHangsInAChildThatWasForkedWhileAnotherThreadLogged) {
  setDebugSink(name_, [](const DebugRecord&) { std::this_thread::yield(); });
  const Chatter chatter(handler_);
  for (int i = 0; i < 100; ++i) {
    ASSERT_TRUE(inChild([this] {
      log("from a child");
      setDebugSink(name_, nullptr);
      _getRawDebugHandler(name_ + "-of-the-child", false);
      return true;
    })) << i;
  }
}

TEST_F(DebugChannel, ServesAChildThatItsSinkHasForked) {
  int calls = 0;
  setDebugSink(name_, [&](const DebugRecord& record) {
    ++calls;
    const pid_t child = record.text == "fork" ? fork() : -1;
    if (child == 0) {
      log("dropped, as the sink still runs");
      const Chatter other(_getRawDebugHandler(name_ + "-other", false));
      std::thread([this] { log("from a thread of the child's"); }).join();
      _exit(calls == 2 ? 0 : 1);
    }
    EXPECT_TRUE(child < 0 || endsWell(child));
  });
  standardErrorDuring([&] { log("fork"); });
  EXPECT_EQ(calls, 1);
}

TEST_F(DebugChannel, OutlivesAThreadThatIsCancelledWhileItLogs) {
  standardErrorDuring([&] {
    for (int round = 0; round < 20; ++round) {
      pthread_t thread{};
      ASSERT_EQ(pthread_create(
                    &thread, nullptr,
                    [](void* handler) -> void* {
                      while (true) {
                        emit(static_cast<RawDebugHandler*>(handler), "until cancelled");
                        pthread_testcancel();
                      }
                    },
                    handler_),
                0);
      pthread_cancel(thread);
      void* result = nullptr;
      ASSERT_EQ(pthread_join(thread, &result), 0);
      EXPECT_EQ(result, PTHREAD_CANCELED);
    }
  });
  collect();
  log("still here");
  EXPECT_THAT(texts_, ElementsAre("still here"));
}

}  // namespace
