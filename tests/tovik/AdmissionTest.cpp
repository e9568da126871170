// The ready-made rules, asked directly, and one of each kind that counts as a real server's
// validator.

#include "Api/Admission.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>
#include <vector>

#include "Api/Json/Server.h"
#include "tests/support/Support.h"

using namespace std::chrono_literals;
using namespace Tovik::Admission;

namespace {

std::optional<uid_t> effectiveUser;

/// Makes this process act as that user while it lives, as far as the process itself can tell.
class ActingAs {
 public:
  explicit ActingAs(uid_t user) { effectiveUser = user; }
  ActingAs(const ActingAs&) = delete;
  ActingAs& operator=(const ActingAs&) = delete;
  ~ActingAs() { effectiveUser.reset(); }
};

}  // namespace

/// Takes the C library's place.
extern "C" uid_t geteuid() noexcept {
  return effectiveUser.value_or(static_cast<uid_t>(syscall(SYS_geteuid)));
}

namespace {

constexpr int kPid = 4711;
constexpr unsigned kAlice = 1000;
constexpr unsigned kBob = 1001;
constexpr unsigned kStaff = 50;
constexpr unsigned kUnmapped = 65534;

const Rule kAll = [](int, unsigned, unsigned) { return true; };
const Rule kNone = [](int, unsigned, unsigned) { return false; };
const Rule kCannotTell = [](int, unsigned, unsigned) { return std::optional<bool>(); };
const Rule kEmpty = std::function<bool(int, unsigned, unsigned)>();

bool admits(const Rule& rule, unsigned uid = kAlice, unsigned gid = kStaff) {
  return rule(kPid, uid, gid);
}

TEST(AdmissionByUser, AdmitsTheUsersOfTheSetAndNoOther) {
  const Rule rule = users({kAlice, 7});
  EXPECT_TRUE(admits(rule, kAlice));
  EXPECT_TRUE(admits(rule, 7));
  EXPECT_FALSE(admits(rule, kBob));
  EXPECT_FALSE(admits(rule, 0));
}

TEST(AdmissionByUser, AdmitsNobodyByAnEmptySet) {
  EXPECT_FALSE(admits(users({}), 0));
  EXPECT_FALSE(admits(groups({}), 0, 0));
}

TEST(AdmissionByUser, TakesOnlyUserZeroForRoot) {
  EXPECT_TRUE(admits(root(), 0));
  EXPECT_FALSE(admits(root(), kAlice, 0));
  EXPECT_FALSE(root()(0, kAlice, kStaff));
}

TEST(AdmissionByUser, TakesTheProcessesOwnUserForTheSameOne) {
  EXPECT_TRUE(admits(sameUser(), geteuid()));
  EXPECT_FALSE(admits(sameUser(), geteuid() + 1));
  EXPECT_FALSE(sameUser()(static_cast<int>(geteuid()), geteuid() + 1, geteuid()));
}

TEST(AdmissionByUser, FollowsTheEffectiveUserOfTheTimeItIsAsked) {
  const Rule rule = sameUser();
  const unsigned real = getuid();
  const ActingAs other(real + 1);
  EXPECT_TRUE(admits(rule, real + 1));
  EXPECT_FALSE(admits(rule, real)) << "the user who started it is another one";
}

TEST(AdmissionByUser, DoesNotTakeTheNumberOfAllUnmappedUsersForTheSameUser) {
  const ActingAs nobody(kUnmapped);
  EXPECT_FALSE(admits(sameUser(), kUnmapped));
  EXPECT_TRUE(admits(users({kUnmapped}), kUnmapped));
}

TEST(AdmissionByGroup, LooksAtTheGroupAndNotAtTheUser) {
  const Rule rule = groups({kStaff, 60});
  EXPECT_TRUE(admits(rule, kAlice, kStaff));
  EXPECT_TRUE(admits(rule, kBob, 60));
  EXPECT_FALSE(admits(rule, kStaff, kAlice));
}

TEST(AdmissionRule, HandsTheThreeNumbersToACallableAsTheyCome) {
  std::vector<unsigned> seen;
  const Rule rule = [&](int pid, unsigned uid, unsigned gid) {
    seen = {static_cast<unsigned>(pid), uid, gid};
    return true;
  };
  EXPECT_TRUE((rule && !!rule)(kPid, kAlice, kStaff));
  EXPECT_EQ(seen, (std::vector<unsigned>{kPid, kAlice, kStaff}));
}

TEST(AdmissionRule, AdmitsByAndWhomBothAdmit) {
  EXPECT_TRUE(admits(kAll && kAll));
  EXPECT_FALSE(admits(kAll && kNone));
  EXPECT_FALSE(admits(kNone && kAll));
  EXPECT_FALSE(admits(kNone && kNone));
}

TEST(AdmissionRule, AdmitsByOrWhomOneOfThemAdmits) {
  EXPECT_TRUE(admits(kAll || kAll));
  EXPECT_TRUE(admits(kAll || kNone));
  EXPECT_TRUE(admits(kNone || kAll));
  EXPECT_FALSE(admits(kNone || kNone));
}

TEST(AdmissionRule, AdmitsByNotWhomTheOtherRefuses) {
  EXPECT_TRUE(admits(!kNone));
  EXPECT_FALSE(admits(!kAll));
  const Rule rule = groups({kStaff}) && !users({kBob});
  EXPECT_TRUE(admits(rule, kAlice));
  EXPECT_FALSE(admits(rule, kBob));
  EXPECT_FALSE(admits(rule, kAlice, 60));
}

TEST(AdmissionRule, AsksNoMoreOperandsThanItTakes) {
  int asked = 0;
  const Rule counting = [&](int, unsigned, unsigned) { return ++asked > 0; };
  admits(kNone && counting);
  admits(kAll || counting);
  EXPECT_EQ(asked, 0);
  admits(kAll && counting);
  admits(kNone || counting);
  EXPECT_EQ(asked, 2);
}

TEST(AdmissionRule, AdmitsNobodyIfItsCallableIsMissing) {
  EXPECT_TRUE(kEmpty.empty());
  EXPECT_FALSE(admits(kEmpty, 0));
  EXPECT_FALSE(admits(Rule(nullptr), 0));
  bool (*noFunction)(int, unsigned, unsigned) = nullptr;
  EXPECT_FALSE(admits(Rule(noFunction), 0));
  EXPECT_FALSE(kAll.empty());
}

TEST(AdmissionRule, AdmitsNobodyByWhateverIsCombinedFromAMissingCallable) {
  for (const Rule& rule : {!kEmpty, !!kEmpty, kAll && kEmpty, kEmpty && kAll, kAll || kEmpty,
                           kEmpty || kAll, !(kNone && kEmpty), !(kEmpty || kNone)}) {
    EXPECT_TRUE(rule.empty());
    EXPECT_FALSE(admits(rule, 0));
  }
}

TEST(AdmissionRule, AdmitsNobodyAfterItWasMovedFrom) {
  Rule rule = kAll;
  const Rule other = std::move(rule);
  EXPECT_TRUE(admits(other));
  EXPECT_FALSE(admits(rule));  // NOLINT(bugprone-use-after-move): what is left is defined
}

TEST(AdmissionRule, RefusesWhatCannotBeToldNegatedOrNot) {
  EXPECT_FALSE(kCannotTell.empty());
  for (const Rule& rule :
       {kCannotTell, !kCannotTell, !!kCannotTell, kCannotTell && kAll, kAll && kCannotTell,
        kCannotTell || kAll, kNone || kCannotTell, !(kAll && kCannotTell), !(kCannotTell && kNone),
        !(kNone || kCannotTell), !(kCannotTell || kNone)}) {
    EXPECT_FALSE(admits(rule));
  }
  EXPECT_TRUE(admits(kAll || kCannotTell));
  EXPECT_TRUE(admits(!(kNone && kCannotTell)));
}

TEST(AdmissionRule, LetsACallablesExceptionOut) {
  const Rule rule = [](int, unsigned, unsigned) -> bool { throw std::runtime_error("mine"); };
  EXPECT_THROW(admits(rule), std::runtime_error);
  EXPECT_THROW(admits(kNone || !(rule && kAll)), std::runtime_error);
}

class AdmissionRate : public ::testing::Test {
 protected:
  Rule rule(double perSecond, double burst) {
    return ratePerUser(perSecond, burst, [this] { return now; });
  }

  static int admitted(const Rule& rule, int attempts, unsigned uid = kAlice) {
    int count = 0;
    for (int i = 0; i < attempts; ++i) {
      count += admits(rule, uid) ? 1 : 0;
    }
    return count;
  }

  std::chrono::steady_clock::time_point now{1000h};
};

TEST_F(AdmissionRate, AdmitsABurstAndThenNoMore) {
  EXPECT_EQ(admitted(rule(1, 3), 10), 3);
  EXPECT_EQ(admitted(rule(1, 1), 10), 1);
  EXPECT_EQ(admitted(rule(1, 2.9), 10), 2);
}

TEST_F(AdmissionRate, AdmitsAgainAsTimeGoesBy) {
  const Rule two = rule(2, 3);
  EXPECT_EQ(admitted(two, 10), 3);
  now += 499ms;
  EXPECT_EQ(admitted(two, 10), 0);
  now += 1ms;
  EXPECT_EQ(admitted(two, 10), 1);
  now += 1s;
  EXPECT_EQ(admitted(two, 10), 2);
  now += 24h;
  EXPECT_EQ(admitted(two, 10), 3) << "no more than a burst";
}

TEST_F(AdmissionRate, CountsNoRefusedAttempt) {
  const Rule one = rule(1, 1);
  EXPECT_EQ(admitted(one, 1), 1);
  for (int i = 0; i < 7; ++i) {
    now += 125ms;
    EXPECT_EQ(admitted(one, 1), 0);
  }
  now += 125ms;
  EXPECT_EQ(admitted(one, 1), 1);
}

TEST_F(AdmissionRate, CountsEachUserApart) {
  const Rule two = rule(1, 2);
  EXPECT_EQ(admitted(two, 10, kAlice), 2);
  EXPECT_EQ(admitted(two, 10, kBob), 2);
  EXPECT_EQ(admitted(two, 10, kAlice), 0);
}

TEST_F(AdmissionRate, IsSharedByCopiesAndByWhatIsCombinedFromIt) {
  const Rule two = rule(1, 2);
  const Rule copy = two;
  EXPECT_EQ(admitted(copy, 1), 1);
  EXPECT_EQ(admitted(kAll && two, 10), 1);
  EXPECT_EQ(admitted(rule(1, 2), 10), 2) << "one that is made anew counts for itself";
}

TEST_F(AdmissionRate, CountsNothingBehindARefusal) {
  const Rule one = rule(1, 1);
  EXPECT_EQ(admitted(users({kAlice}) && one, 10, kBob), 0);
  EXPECT_EQ(admitted(one, 10, kBob), 1);
}

TEST_F(AdmissionRate, NeverAdmitsAgainWithoutARate) {
  const Rule none = rule(0, 2);
  EXPECT_EQ(admitted(none, 10), 2);
  now += 1000h;
  EXPECT_EQ(admitted(none, 10), 0);
}

TEST_F(AdmissionRate, GainsAndLosesNothingWhenTheClockStepsBack) {
  const Rule one = rule(1, 2);
  EXPECT_EQ(admitted(one, 10), 2);
  now -= 10s;
  EXPECT_EQ(admitted(one, 10), 0);
  EXPECT_EQ(admitted(one, 10, kBob), 2);
  now += 10s;
  EXPECT_EQ(admitted(one, 10), 0);
  EXPECT_EQ(admitted(one, 10, kBob), 0);
  now += 1s;
  EXPECT_EQ(admitted(one, 10), 1);
}

TEST_F(AdmissionRate, AdmitsNobodyByNumbersWithoutSense) {
  constexpr double kInfinite = std::numeric_limits<double>::infinity();
  constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
  for (const auto& [perSecond, burst] :
       {std::pair(1.0, 0.999), {-0.001, 1}, {kInfinite, 1}, {1, kInfinite}, {kNan, 1}, {1, kNan}}) {
    const Rule senseless = rule(perSecond, burst);
    EXPECT_TRUE(senseless.empty()) << perSecond << " " << burst;
    EXPECT_FALSE(admits(senseless) || admits(!senseless));
  }
  EXPECT_TRUE(ratePerUser(1, 1, nullptr).empty());
}

TEST_F(AdmissionRate, GoesByTheMonotonicClockUnlessToldOtherwise) {
  const Rule rule = ratePerUser(50, 1);
  EXPECT_TRUE(admits(rule));
  const auto start = std::chrono::steady_clock::now();
  while (!admits(rule) && std::chrono::steady_clock::now() - start < 10s) {
  }
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_GT(waited, 15ms);
  EXPECT_LT(waited, 5s);
}

TEST_F(AdmissionRate, ForgetsUsersWhoseTimeHasPassed) {
  TokenBuckets buckets(1, 2);
  unsigned next = 0;
  const auto callUsers = [&](unsigned count) {
    for (unsigned i = 0; i < count; ++i) {
      EXPECT_TRUE(buckets.take(next++, now));
    }
  };
  callUsers(64);
  EXPECT_EQ(buckets.size(), 64U);
  callUsers(64);  // none of the 64 is full again, so the next look comes at 128
  EXPECT_EQ(buckets.size(), 128U);
  now += 999ms;
  callUsers(1);
  EXPECT_EQ(buckets.size(), 129U);
  now += 1s;
  callUsers(127);
  EXPECT_EQ(buckets.size(), 256U);
  callUsers(1);  // the first 129 are full again
  EXPECT_EQ(buckets.size(), 128U);
}

TEST_F(AdmissionRate, RemembersUsersWhoHaveNotPaidYet) {
  TokenBuckets buckets(1, 2);
  EXPECT_TRUE(buckets.take(kAlice, now));
  EXPECT_TRUE(buckets.take(kAlice, now));
  now += 500ms;
  for (unsigned uid = 5000; uid < 6000; ++uid) {
    buckets.take(uid, now);
  }
  EXPECT_FALSE(buckets.take(kAlice, now));
}

TEST(AdmissionLimit, AdmitsUpToTheLimitOfTheCountThatItIsGiven) {
  std::size_t open = 0;
  unsigned asked = 0;
  const Rule rule = limitPerUser(2, [&](unsigned uid) {
    asked = uid;
    return open;
  });
  for (const auto& [count, expected] : {std::pair(1, true), {2, true}, {3, false}}) {
    open = static_cast<std::size_t>(count);
    EXPECT_EQ(admits(rule, kBob), expected) << count;
  }
  EXPECT_EQ(asked, kBob);
}

TEST(AdmissionLimit, AdmitsNobodyWithoutACount) {
  EXPECT_TRUE(limitPerUser(2, nullptr).empty());
  const Rule rule = limitPerUser(2, [](unsigned) { return std::optional<std::size_t>(); });
  EXPECT_FALSE(admits(rule));
  EXPECT_FALSE(admits(!rule));
}

class AdmissionToAServer : public ::testing::Test {
 protected:
  void serve(const Rule& rule) {
    server = std::make_unique<Tovik::Server>(
        name, [](Tovik::Connection& client, const Tovik::Message&) { client.acknowledge(7); },
        rule);
  }

  /// A client that the server has judged by now.
  Fd client() {
    Fd fd = rawConnect(name);
    EXPECT_GE(fd.get(), 0);
    turnUntilIdle();
    return fd;
  }

  static bool admitted(const Fd& client) { return rawReceiveNow(client.get()) == "<nothing>"; }

  const std::string name = uniqueName();
  std::unique_ptr<Tovik::Server> server;
};

TEST_F(AdmissionToAServer, ServesWhomTheRuleAdmits) {
  serve(root() || sameUser());
  const Fd peer = client();
  rawSend(peer.get(), R"({"a":1})");
  turnUntilIdle();
  EXPECT_EQ(rawReceiveNow(peer.get()), R"({"type":"reply","status":7})");
}

TEST_F(AdmissionToAServer, ClosesClientsByAnEmptyRule) {
  serve(kEmpty);
  EXPECT_EQ(rawReceiveNow(client().get()), "<end>");
}

TEST_F(AdmissionToAServer, LimitsTheConnectionsThatAUserHasOpen) {
  serve(limitPerUser(2, OpenConnections(name)));
  const Fd first = client();
  Fd second = client();
  EXPECT_TRUE(admitted(first) && admitted(second));
  EXPECT_FALSE(admitted(client()));
  second.reset();
  turnUntilIdle();
  EXPECT_TRUE(admitted(client()));
}

TEST_F(AdmissionToAServer, CountsOnlyConnectionsOfItsOwnName) {
  const std::string otherName = uniqueName();
  const Tovik::Server other(
      otherName, [](auto&, auto&) {}, kAll);
  const Fd elsewhere = rawConnect(otherName);
  const auto ownPair = rawPair();
  turnUntilIdle();
  serve(limitPerUser(1, OpenConnections(name)));
  EXPECT_TRUE(admitted(client()));
  EXPECT_EQ(OpenConnections(otherName)(geteuid()), 1U);
}

TEST_F(AdmissionToAServer, CountsNoOtherUsersConnections) {
  serve(kAll);
  const Fd peer = client();
  EXPECT_EQ(OpenConnections(name)(geteuid()), 1U);
  EXPECT_EQ(OpenConnections(name)(geteuid() + 1), std::nullopt);
}

TEST_F(AdmissionToAServer, AdmitsNobodyByTheCountOfAnotherName) {
  serve(limitPerUser(100, OpenConnections(name + "x")));
  EXPECT_FALSE(admitted(client()));
  EXPECT_EQ(OpenConnections(std::string(200, 'x'))(geteuid()), std::nullopt);
}

TEST_F(AdmissionToAServer, CountsUnderTheLongestName) {
  const std::string longest = name + std::string(106 - name.size(), 'x');
  const Tovik::Server other(
      longest, [](auto&, auto&) {}, kAll);
  const Fd peer = rawConnect(longest);
  turnUntilIdle();
  EXPECT_EQ(OpenConnections(longest)(geteuid()), 1U);
}

TEST_F(AdmissionToAServer, CountsAConnectionOnDescriptorZeroOnce) {
  serve(kAll);
  const Fd peer = rawConnect(name);
  const FreeDescriptorZero zero;
  turnUntilIdle();
  EXPECT_EQ(OpenConnections(name)(geteuid()), 1U);
  server.reset();
}

TEST_F(AdmissionToAServer, AdmitsNobodyWhenItsDescriptorsCannotBeListed) {
  serve(limitPerUser(100, OpenConnections(name)));
  const Fd peer = client();
  EXPECT_EQ(OpenConnections(name)(geteuid()), 1U);
  rlimit before{};
  getrlimit(RLIMIT_NOFILE, &before);
  const rlimit none{0, before.rlim_max};
  setrlimit(RLIMIT_NOFILE, &none);
  const auto count = OpenConnections(name)(geteuid());
  setrlimit(RLIMIT_NOFILE, &before);
  EXPECT_EQ(count, std::nullopt);
}

}  // namespace
