#pragma once

#include <dirent.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "../Kelvo/String.h"

/// @file
/// Ready-made admission for `Tovik::Server`. Rules are plain values: make them, combine them, hand
/// one to the server as its validator.
///
///     using namespace Tovik::Admission;
///     Tovik::Server server("adder", handler, root() || (sameUser() && ratePerUser(5, 20)));
///
/// Everything fails closed: a rule that cannot be decided refuses, negated or not.
///
/// No rule looks at the process id. The kernel notes it when the client connects; by the time it is
/// looked at, that process may be gone and its number another's, and a connected socket may have
/// been handed on. It serves for logs, not for decisions.
///
/// In another user namespace the kernel shows every user that has no mapping here as 65534, and
/// every such group likewise: that number stands for many, and rules treat them as one.

/// Rules for the validator of a server.
namespace Tovik::Admission {

/// Decides about one client. Any callable that a server takes as its validator is a rule; one that
/// returns `std::optional<bool>` may also say, with nothing, that it cannot tell. A client
/// that is not admitted for certain is refused:
///  - an empty callable admits nobody, and neither does anything combined from it;
///  - what cannot be told stays so under `!`, and in `&&` and `||` once it is asked for.
///
/// What a callable throws leaves through the server, like a validator's own exception.
///
/// Copies share whatever a rule counts, so a rule that is given to two servers limits both
/// together. Rules that count belong to one thread.
class Rule {
 public:
  /// What a rule is made of: true admits, nothing means that it cannot tell.
  using Check = std::function<std::optional<bool>(int pid, unsigned uid, unsigned gid)>;

  /// Takes any callable that `Check` can hold; an empty one makes an empty rule.
  template <class Callable, class = std::enable_if_t<std::is_constructible_v<Check, Callable> &&
                                                     !std::is_same_v<std::decay_t<Callable>, Rule>>>
  Rule(Callable&& callable) : check_(std::forward<Callable>(callable)) {}

  /// True admits.
  bool operator()(int pid, unsigned uid, unsigned gid) const {
    return ask(pid, uid, gid).value_or(false);
  }

  /// True if it admits nobody because a callable is missing.
  bool empty() const { return !check_; }

  /// Operands are asked from left to right, and no more of them than it takes. What is not asked
  /// counts nothing, so put limits last.
  /// @{
  friend Rule operator&&(Rule left, Rule right) {
    return combined(std::move(left), std::move(right), true);
  }

  friend Rule operator||(Rule left, Rule right) {
    return combined(std::move(left), std::move(right), false);
  }
  /// @}

  /// Admits whomever `rule` refuses, ids included that nobody has thought of; so it is best used to
  /// take some away from those that another rule admits: `groups({100}) && !users({1001})`.
  friend Rule operator!(Rule rule) {
    if (rule.empty()) {
      return rule;
    }
    return [rule = std::move(rule)](int pid, unsigned uid, unsigned gid) {
      auto answer = rule.ask(pid, uid, gid);
      return answer.has_value() ? !*answer : answer;
    };
  }

 private:
  std::optional<bool> ask(int pid, unsigned uid, unsigned gid) const {
    return empty() ? std::nullopt : check_(pid, uid, gid);
  }

  /// The left one's word, unless that is `neutral`, which decides nothing: then the right one's.
  static Rule combined(Rule left, Rule right, bool neutral) {
    if (left.empty() || right.empty()) {
      return Check();
    }
    return [left = std::move(left), right = std::move(right), neutral](int pid, unsigned uid,
                                                                       unsigned gid) {
      const auto answer = left.ask(pid, uid, gid);
      return answer == neutral ? right.ask(pid, uid, gid) : answer;
    };
  }

  Check check_;
};

/// Users by number. An empty set admits nobody.
inline Rule users(std::unordered_set<unsigned> admitted) {
  return [admitted = std::move(admitted)](int, unsigned uid, unsigned) {
    return admitted.count(uid) != 0;
  };
}

/// The user 0.
inline Rule root() {
  return users({0});
}

/// The user that this process acts as, at the time a client is judged. While that is 65534, nobody:
/// that number may stand for any user. A service that does run as this user says `users({65534})`.
inline Rule sameUser() {
  return [](int, unsigned uid, unsigned) {
    constexpr unsigned kUnmapped = 65534;
    return uid == geteuid() && uid != kUnmapped;
  };
}

/// Groups by number: the client's effective group when it connected. A server is not told of the
/// supplementary groups, so a user who is in a group by those alone is not in it here.
inline Rule groups(std::unordered_set<unsigned> admitted) {
  return [admitted = std::move(admitted)](int, unsigned, unsigned gid) {
    return admitted.count(gid) != 0;
  };
}

/// A token bucket for each user. A bucket holds up to `burst` tokens and regains `perSecond`; an
/// admission takes one. Buckets that are full again are forgotten, so memory is needed for recent
/// users only.
class TokenBuckets {
 public:
  /// Does not jump when somebody sets the time.
  using Clock = std::chrono::steady_clock;

  /// Buckets are full at first.
  TokenBuckets(double perSecond, double burst) : perSecond_(perSecond), burst_(burst) {}

  /// True if the user had a token, which is then taken. A time before the last one counts as it.
  bool take(unsigned uid, Clock::time_point now) {
    now_ = std::max(now_, now);
    forgetFullOnes();
    Bucket& bucket = buckets_.try_emplace(uid, Bucket{burst_, now_}).first->second;
    bucket = {tokens(bucket), now_};
    if (!(bucket.tokens >= 1)) {
      return false;
    }
    bucket.tokens -= 1;
    return true;
  }

  /// How many users are remembered.
  std::size_t size() const { return buckets_.size(); }

 private:
  struct Bucket {
    double tokens;
    Clock::time_point asOf;
  };

  double tokens(const Bucket& bucket) const {
    const std::chrono::duration<double> since = now_ - bucket.asOf;
    return std::min(burst_, bucket.tokens + since.count() * perSecond_);
  }

  /// Whenever their number has doubled, so that it costs next to nothing on average.
  void forgetFullOnes() {
    if (buckets_.size() < sweepAt_) {
      return;
    }
    for (auto at = buckets_.begin(); at != buckets_.end();) {
      at = tokens(at->second) >= burst_ ? buckets_.erase(at) : std::next(at);
    }
    sweepAt_ = std::max(kFirstSweep, 2 * buckets_.size());
  }

  static constexpr std::size_t kFirstSweep = 64;

  const double perSecond_;
  const double burst_;
  Clock::time_point now_ = Clock::time_point::min();
  std::unordered_map<unsigned, Bucket> buckets_;
  std::size_t sweepAt_ = kFirstSweep;
};

/// Each user may connect `burst` times at once, and `perSecond` times a second in the long run. It
/// limits how often users connect, not how many connections they keep. Refused attempts cost the
/// user nothing. Admits nobody if `burst` is below 1, `perSecond` negative, or either not finite.
/// `now` is the clock, for tests.
inline Rule ratePerUser(
    double perSecond, double burst,
    std::function<TokenBuckets::Clock::time_point()> now = &TokenBuckets::Clock::now) {
  const bool sensible =
      std::isfinite(perSecond) && perSecond >= 0 && std::isfinite(burst) && burst >= 1;
  if (!sensible || !now) {
    return Rule::Check();
  }
  const auto buckets = std::make_shared<TokenBuckets>(perSecond, burst);
  return [buckets, now = std::move(now)](int, unsigned uid, unsigned) {
    return buckets->take(uid, now());
  };
}

/// Tells how many connections a user has, the one that is being judged included; nothing if that
/// cannot be told.
using Count = std::function<std::optional<std::size_t>(unsigned uid)>;

/// Each user may have `limit` connections at the same time. A validator does not hear of the end of
/// a connection, so no rule can keep that count by itself: it is asked for, each time a client is
/// judged. Give `OpenConnections`, or a count that the application keeps.
inline Rule limitPerUser(std::size_t limit, Count count) {
  if (!count) {
    return Rule::Check();
  }
  return [limit, count = std::move(count)](int, unsigned uid, unsigned) {
    const auto open = count(uid);
    return open.has_value() ? std::optional(*open <= limit) : std::nullopt;
  };
}

/// Counts what this process holds open: its descriptors that are connections accepted under the
/// server's name, by the user who made each. That is exact at the moment it is asked. A client that
/// has gone counts until the server has read the end of its connection, one turn of the loop later.
///
/// There is no count, and so nobody is admitted, where the descriptors cannot be listed (/proc is
/// not mounted, or no descriptor is left), and when none is found at all: the client being judged
/// has one, so the name is not this server's. The cost is some microseconds for each descriptor.
class OpenConnections {
 public:
  /// Takes the name under which the server listens.
  explicit OpenConnections(const Kelvo::String& serverName) {
    address_.sun_family = AF_UNIX;
    const std::string_view name = serverName.data();  // up to a NUL, as the server takes it
    name.copy(address_.sun_path + 1, sizeof address_.sun_path - 1);
  }

  /// The user's connections, the one that is being judged included.
  std::optional<std::size_t> operator()(unsigned uid) const {
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir("/proc/self/fd"), &closedir);
    if (folder == nullptr) {
      return std::nullopt;
    }
    std::size_t count = 0;
    while (const dirent* entry = readdir(folder.get())) {
      const bool isNumber = entry->d_name[0] != '.';
      count += isNumber && isConnectionOf(uid, std::atoi(entry->d_name)) ? 1U : 0U;
    }
    return count == 0 ? std::nullopt : std::optional(count);
  }

 private:
  bool isConnectionOf(unsigned uid, int fd) const {
    sockaddr_un local{};
    socklen_t localSize = sizeof local;
    int listens = 1;
    socklen_t listensSize = sizeof listens;
    ucred peer{};
    socklen_t peerSize = sizeof peer;
    return getsockname(fd, reinterpret_cast<sockaddr*>(&local), &localSize) == 0 &&
           localSize == sizeof address_ && std::memcmp(&local, &address_, sizeof address_) == 0 &&
           getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listens, &listensSize) == 0 && listens == 0 &&
           getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &peerSize) == 0 && peer.uid == uid;
  }

  sockaddr_un address_{};
};

}  // namespace Tovik::Admission
