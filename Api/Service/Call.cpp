// One call, from its message to its outcome, and the whole of it without an event loop: connect ->
// send -> receive until the last reply, each with what is left of the time.

#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <sstream>
#include <utility>

#include "Api/Service/detail/Outcomes.h"

namespace Tovik {

namespace {

constexpr double kLongestLimit = 1e8;       // seconds
constexpr std::size_t kLongestBody = 4071;  // what the longest id leaves
constexpr std::uint64_t kLargestStatus = 2147483647;
constexpr std::size_t kMostParts = 4096;  // 16 MiB at most
constexpr std::uint64_t kId = 1;          // of the only call on a connection

std::string reasonFor(const Message& reply, unsigned status) {
  const auto otherwise =
      status < 1000 ? std::strerror(static_cast<int>(status)) : "status " + std::to_string(status);
  return get<std::string>(reply, "error").value_or(otherwise);
}

/// Makes a system call with the time that is left, of which the kernel takes 0 for no limit.
template <class Call>
ssize_t timed(int fd, int option, Clock::time_point deadline, Call call) {
  using std::chrono::microseconds;
  ssize_t result = -1;
  do {
    const auto left = deadline - Clock::now();
    if (left.count() <= 0) {
      errno = EAGAIN;
      return -1;
    }
    const auto time = std::chrono::duration_cast<microseconds>(left) + microseconds(1);
    const timeval limit{static_cast<time_t>(time / std::chrono::seconds(1)),
                        static_cast<suseconds_t>(time % std::chrono::seconds(1) / microseconds(1))};
    ::setsockopt(fd, SOL_SOCKET, option, &limit, sizeof limit);
    result = call();
  } while (result < 0 && errno == EINTR);
  return result;
}

}  // namespace

Clock::time_point after(Proxy::Seconds limit) {
  const Proxy::Seconds sensible(limit.count() > 0 ? std::min(limit.count(), kLongestLimit)
                                                  : 0.0);  // NaN is no limit to keep
  return Clock::now() + std::chrono::duration_cast<Clock::duration>(sensible);
}

std::optional<Outcome> prepare(const std::string& server, const Message& message,
                               Outgoing& outgoing) {
  outgoing.subject = server + ": " + get<std::string>(message, "command").value_or("call");
  const auto refused = [&outgoing](Outcome::End end, int status, const char* why) {
    return ended(end, status, outgoing.subject, why);
  };
  if (message.HasParseError() || !message.IsObject() || message.HasMember("id")) {
    return refused(Outcome::kRefused, EINVAL, "a call is an object without an id");
  }
  auto text = Convention::textOf(message);
  if (!text.has_value()) {
    return refused(Outcome::kRefused, EINVAL, "it holds a number that JSON cannot express");
  }
  if (text->size() > kLongestBody) {
    return refused(Outcome::kTooLong, EMSGSIZE, "it is longer than 4071 bytes");
  }
  outgoing.body = *std::move(text);
  return std::nullopt;
}

std::string textOf(const Outgoing& outgoing, std::uint64_t id) {
  return Convention::joined(R"({"id":)" + std::to_string(id), outgoing.body);
}

Outcome ended(Outcome::End end, int status, const std::string& subject, const std::string& why) {
  Outcome outcome;
  outcome.end = end;
  outcome.status = static_cast<unsigned>(status);
  outcome.error = subject + ": " + why;
  return outcome;
}

std::string within(const std::string& what, Proxy::Seconds limit) {
  std::ostringstream text;
  text << what << " within " << limit.count() << " s";
  return text.str();
}

std::optional<Outcome> outcomeOf(Message reply, const std::string& subject) {
  const auto status = get<std::uint64_t>(reply, "status");
  if (!status.has_value() || *status > kLargestStatus) {
    TOVIK_SERVICE_LOG(1, subject << ": a reply without a status is dropped");
    return std::nullopt;
  }
  Outcome outcome;
  outcome.status = static_cast<unsigned>(*status);
  outcome.more = get<bool>(reply, "more").value_or(false);
  if (outcome.status != 0) {
    outcome.error = subject + ": " + reasonFor(reply, outcome.status);
  }
  outcome.reply = std::move(reply);
  return outcome;
}

Proxy::Callback collecting(Proxy::Callback callback) {
  const auto parts = std::make_shared<std::vector<Message>>();
  return [parts, callback = std::move(callback)](Outcome outcome) {
    if (outcome.more) {
      if (parts->size() <= kMostParts) {
        parts->push_back(std::move(outcome.reply));
      }
      return;
    }
    if (parts->size() > kMostParts) {
      outcome = ended(Outcome::kTooLong, EMSGSIZE, "the answer", "it has too many parts");
    }
    outcome.earlier = std::move(*parts);
    callback(std::move(outcome));
  };
}

Outcome call(const std::string& name, const Message& message, Proxy::Seconds limit) {
  const sockaddr_un address = Convention::addressOf(name);
  Outgoing outgoing;
  if (auto refused = prepare(name, message, outgoing)) {
    return *std::move(refused);
  }
  const std::string request = textOf(outgoing, kId);
  char buffer[Convention::kLongestRecord + 1];
  const auto deadline = after(limit);
  const Convention::OwnedFd fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  const auto connect = [&] {
    return ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  };
  const auto send = [&] { return ::send(fd.get(), request.data(), request.size(), MSG_NOSIGNAL); };
  const auto receive = [&] { return ::recv(fd.get(), buffer, sizeof buffer - 1, MSG_TRUNC); };
  const auto failed = [&](const char* late, Outcome::End end, int status, const std::string& why) {
    return Clock::now() < deadline
               ? ended(end, status, outgoing.subject, why)
               : ended(Outcome::kTimedOut, ETIMEDOUT, outgoing.subject, within(late, limit));
  };
  const auto lost = [&failed](const std::string& why) {
    return failed("no reply", Outcome::kLost, ECONNRESET, "connection lost: " + why);
  };

  if (fd.get() < 0 || timed(fd.get(), SO_SNDTIMEO, deadline, connect) < 0) {
    const int error = errno;
    return failed("not connected", Outcome::kRefused, error, std::strerror(error));
  }
  if (timed(fd.get(), SO_SNDTIMEO, deadline, send) < 0) {
    return lost(std::strerror(errno));
  }
  std::optional<Outcome> last;
  const auto collect = collecting([&last](Outcome outcome) { last = std::move(outcome); });
  while (!last.has_value()) {
    const ssize_t size = timed(fd.get(), SO_RCVTIMEO, deadline, receive);
    if (size <= 0) {
      return lost(size < 0 ? std::strerror(errno) : "it closed the connection");
    }
    if (static_cast<std::size_t>(size) >= sizeof buffer) {
      continue;  // no reply is as long
    }
    buffer[size] = '\0';
    Message reply;
    Convention::parse(reply, buffer);
    const auto* id = find(reply, "id");  // a plain server's replies have none
    if (get<std::string>(reply, "type") != "reply" ||
        (id != nullptr && get<std::uint64_t>(reply, "id") != kId)) {
      continue;
    }
    if (auto outcome = outcomeOf(std::move(reply), outgoing.subject)) {
      collect(*std::move(outcome));
    }
  }
  return *std::move(last);
}

}  // namespace Tovik
