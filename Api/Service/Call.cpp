// The call without an event loop. connect -> send -> receive until the last reply, each with what
// is left of the time.

#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <utility>

#include "Api/Service/detail/Outcomes.h"

namespace Tovik {

namespace {

constexpr std::uint64_t kId = 1;

class BlockingCall {
 public:
  BlockingCall(const std::string& name, std::string subject, Proxy::Seconds limit)
      : address_(Convention::addressOf(name)),
        subject_(std::move(subject)),
        limit_(limit),
        deadline_(Clock::now() + limit),
        fd_(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {}

  Outcome operator()(const std::string& request) {
    const auto connect = [this] {
      return ::connect(fd_.get(), reinterpret_cast<const sockaddr*>(&address_), sizeof address_);
    };
    const auto send = [this, &request] {
      return ::send(fd_.get(), request.data(), request.size(), MSG_NOSIGNAL);
    };
    if (fd_.get() < 0 || retried(SO_SNDTIMEO, connect) < 0) {
      const int error = errno;
      return isLate() ? late("not connected")
                      : ended(Outcome::kRefused, error, subject_, std::strerror(error));
    }
    if (retried(SO_SNDTIMEO, send) < 0) {
      return lost(std::strerror(errno));
    }
    return receive();
  }

 private:
  using Clock = std::chrono::steady_clock;
  using Time = std::chrono::time_point<Clock, Proxy::Seconds>;

  /// Makes a system call with the time that is left. The kernel takes a time of 0 for none.
  template <class Call>
  ssize_t retried(int option, Call call) {
    while (true) {
      const double left = Proxy::Seconds(deadline_ - Time(Clock::now())).count();
      if (!(left > 0)) {
        errno = EAGAIN;
        return -1;
      }
      const double sensible = left < 1e8 ? left + 1e-6 : 1e8;
      const auto whole = static_cast<time_t>(sensible);
      const auto rest = (sensible - static_cast<double>(whole)) * 1e6;
      const timeval time{whole, static_cast<suseconds_t>(rest)};
      ::setsockopt(fd_.get(), SOL_SOCKET, option, &time, sizeof time);
      const ssize_t result = call();
      if (result >= 0 || errno != EINTR) {
        return result;
      }
    }
  }

  Outcome receive() {
    char buffer[Convention::kLongestRecord + 1];
    const auto next = [this, &buffer] {
      return ::recv(fd_.get(), buffer, sizeof buffer - 1, MSG_TRUNC);
    };
    std::optional<Outcome> last;
    auto collect = collecting([&last](Outcome outcome) { last = std::move(outcome); });
    while (!last.has_value()) {
      const ssize_t size = retried(SO_RCVTIMEO, next);
      if (size <= 0) {
        return lost(size < 0 ? std::strerror(errno) : "it closed the connection");
      }
      if (static_cast<std::size_t>(size) < sizeof buffer) {
        buffer[size] = '\0';
        take(buffer, collect);
      }
    }
    return *std::move(last);
  }

  /// A reply to this call; without an id, of a plain server. All else is not for us.
  void take(const char* text, const Proxy::Callback& collect) const {
    Message message;
    Convention::parse(message, text);
    const auto* id = find(message, "id");
    if (isReply(message) && (id == nullptr || get<std::uint64_t>(message, "id") == kId)) {
      if (auto outcome = outcomeOf(std::move(message), subject_)) {
        collect(*std::move(outcome));
      }
    }
  }

  bool isLate() const { return !(Time(Clock::now()) < deadline_); }
  Outcome late(const std::string& what) const {
    return ended(Outcome::kTimedOut, ETIMEDOUT, subject_, what + " within " + shown(limit_));
  }
  Outcome lost(const std::string& why) const {
    return isLate() ? late("no reply")
                    : ended(Outcome::kLost, ECONNRESET, subject_, "connection lost: " + why);
  }

  const sockaddr_un address_;
  const std::string subject_;
  const Proxy::Seconds limit_;
  const Time deadline_;
  const Convention::OwnedFd fd_;
};

}  // namespace

Outcome call(const std::string& name, const Message& message, Proxy::Seconds limit) {
  Convention::addressOf(name);  // throws if it is none
  Outgoing outgoing{subjectOf(name, message), {}};
  if (auto refused = prepare(message, outgoing)) {
    return *std::move(refused);
  }
  return BlockingCall(name, outgoing.subject, limit)(textOf(outgoing, kId));
}

}  // namespace Tovik
