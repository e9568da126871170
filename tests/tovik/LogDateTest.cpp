#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "Kelvo/Platform/Debug.h"
#include "tests/support/Support.h"

// The date in front of a line on standard error, beside the C library's. The clock is this
// program's: the dynamic linker finds its clock_gettime before the C library's.

namespace {

std::time_t pretended = -1;
constexpr long kNanoseconds = 34567890;

}  // namespace

extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept {
  if (clock != CLOCK_REALTIME || pretended < 0) {
    return static_cast<int>(::syscall(SYS_clock_gettime, clock, time));
  }
  *time = {pretended, kNanoseconds};
  return 0;
}

namespace {

class LogDate : public testing::Test {
 protected:
  LogDate() {
    setenv("TZ", "WEST5", 1);  // the date is in UTC wherever the machine stands
    tzset();
    dup2(file_.get(), STDERR_FILENO);
  }
  ~LogDate() override {
    pretended = -1;
    dup2(before_.get(), STDERR_FILENO);
  }

  /// The date with which a line appears at that time.
  std::string written(std::time_t time) {
    pretended = time;
    channel_->output(text_, 0, "a/File", "function", 1);
    char line[64] = {};
    const auto length = pread(file_.get(), line, sizeof line - 1, 0);
    EXPECT_EQ(ftruncate(file_.get(), 0), 0);
    EXPECT_EQ(lseek(file_.get(), 0, SEEK_SET), 0);
    const std::string whole(line, length < 0 ? 0 : static_cast<std::size_t>(length));
    return whole.substr(0, whole.find(' '));
  }

  /// The same, from the C library.
  static std::string expected(std::time_t time) {
    std::tm parts{};
    gmtime_r(&time, &parts);
    char text[64];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S.034567Z", &parts);
    return text;
  }

 private:
  const Fd file_{memfd_create("stderr", MFD_CLOEXEC)};
  const Fd before_{dup(STDERR_FILENO)};
  Kelvo::Platform::RawDebugHandler* const channel_ =
      Kelvo::Platform::_getRawDebugHandler(uniqueName(), true);
  const Kelvo::Platform::DebugStream text_;
};

/// Midnight of the first day of that month.
std::time_t beginning(int year, int month) {
  std::tm parts{};
  parts.tm_year = year - 1900;
  parts.tm_mon = month - 1;
  parts.tm_mday = 1;
  return timegm(&parts);
}

}  // namespace

// Eight centuries, so that each kind of leap year ends a cycle, and the cycle of 400 years ends
// too.
TEST_F(LogDate, IsRightOnTheFirstAndTheLastDayOfEveryMonth) {
  for (int year = 1970; year < 2810; ++year) {
    for (int month = 1; month <= 12; ++month) {
      const auto first = beginning(year, month);
      ASSERT_EQ(written(first), expected(first));
      const auto last = beginning(year, month + 1) - 1;
      ASSERT_EQ(written(last), expected(last));
    }
  }
}

TEST_F(LogDate, IsRightOnEveryDayOfALeapYearAndItsNeighbours) {
  for (auto day = beginning(2027, 1); day < beginning(2030, 1); day += 86400) {
    const auto time = day + day / 86400 * 4337 % 86400;  // another time each day
    ASSERT_EQ(written(time), expected(time));
  }
}
