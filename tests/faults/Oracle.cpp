// The outcomes that each fault may have, written down from what the library promises and without a
// look at what it does. A fault may meet one of several callers, so it has several alternatives;
// an outcome has to be one of them as a whole.

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <regex>

#include "tests/faults/Scenarios.h"

namespace Faults {

namespace {

enum class Goal { kReached, kMissed, kEither };

struct Alternative {
  Goal goal = Goal::kReached;
  std::string exception = {};  // regular expressions for the one line
  std::string error = {};
  bool lost = false;        // the connection at hand ends as well
  bool unanswered = false;  // the blocking client may wait in vain
  int descriptorsLeft = 0;
};

std::string escaped(const std::string& text) {
  return std::regex_replace(text, std::regex(R"([.^$|()\[\]{}*+?\\])"), R"(\$&)");
}

bool areLines(const std::string& lines, const std::string& line, const std::string& more) {
  return std::regex_match(lines, std::regex((line.empty() ? "" : line + "\n") + more));
}

bool matches(const Scenario& scenario, const Alternative& alternative, const Run& run) {
  auto goal = alternative.goal;
  std::string moreExceptions, moreErrors;
  if (alternative.lost) {
    goal = scenario.reconnects ? Goal::kReached : Goal::kEither;
    // So it is seen, too, if the server closes before it has read what the client sent.
    const std::string reset = "Connection reset by peer";
    if (scenario.reconnects) {
      moreErrors = "(AsyncSender::asynRead\\(\\): read failed -> " + reset + "\n)?";
    }
    if (scenario.blocks) {
      moreExceptions = "(Tovik::SocketException: (Broken pipe|" + reset + ")\n)?";
    }
  }
  if (alternative.unanswered) {  // the scenario limits its blocking client's waits
    moreExceptions += "(Tovik::SocketException: Resource temporarily unavailable\n)?";
  }
  return (goal == Goal::kEither || (goal == Goal::kReached) == run.reached) &&
         areLines(run.exceptions, alternative.exception, moreExceptions) &&
         areLines(run.errors, alternative.error, moreErrors) &&
         run.descriptorsLeft == alternative.descriptorsLeft;
}

Alternative harmless() {
  return {};
}

Alternative lostWith(const std::string& error, const std::string& exception = {}) {
  return {Goal::kReached, exception, error, true};
}

Alternative thrown(const std::string& exception, Goal goal) {
  return {goal, exception};
}

Alternative logged(const std::string& error, Goal goal = Goal::kReached) {
  return {goal, {}, error};
}

std::string socketFailure(const std::string& reason) {
  return "Tovik::SocketException: " + escaped(reason);
}

std::string loopFailure(const std::string& what, const std::string& reason) {
  return escaped("Kelvo::Exception: EventLoop: " + what + " failed: " + reason);
}

std::vector<Alternative> ofRead(const Scenario& scenario, int error, const std::string& reason) {
  std::vector<Alternative> alternatives{lostWith(
      error == EAGAIN ? "" : escaped("AsyncSender::asynRead(): read failed -> " + reason))};
  if (scenario.blocks) {
    alternatives.push_back(thrown(socketFailure(reason), Goal::kMissed));
  }
  return alternatives;
}

std::vector<Alternative> ofWrite(const Scenario& scenario, int error, const std::string& reason) {
  std::vector<Alternative> alternatives{
      error == EAGAIN  ? harmless()
      : error == EPIPE ? lostWith("")
                       : logged(escaped("AsyncSender::flushQueue(): write error " + reason))};
  if (scenario.blocks) {
    alternatives.push_back(
        logged(escaped("Client::sendMsg(): Failed to write() " + reason), Goal::kMissed));
  }
  return alternatives;
}

std::vector<Alternative> ofFlags(const Scenario& scenario, bool setting,
                                 const std::string& reason) {
  const std::string end =
      escaped(std::string(": Failed to ") + (setting ? "SETFL" : "GETFL") + " -> " + reason);
  auto server = lostWith("Server::readFdEvent" + end);
  if (setting) {  // the server leaves this client's descriptor open, and nobody serves it
    server.lost = false;
    server.goal = Goal::kMissed;
    server.descriptorsLeft = 1;
    server.exception = scenario.blocks ? socketFailure(std::strerror(EAGAIN)) : "";
  }
  return {server, logged("createSocket" + end)};
}

std::vector<Alternative> ofAllocation() {
  auto thrownOnly = thrown("std::bad_alloc", Goal::kEither);
  thrownOnly.unanswered = true;
  return {harmless(), lostWith(""), lostWith("", "std::bad_alloc"), thrownOnly};
}

std::vector<Alternative> alternatives(const Scenario& scenario, const Injection::Fault& fault) {
  const std::string reason = std::strerror(fault.error);
  const std::string& call = fault.call;
  if (call == "bind" || call == "listen" ||
      ((call == "socket" || call == "connect") && !scenario.reconnects)) {
    return {thrown(socketFailure(reason), Goal::kMissed)};
  }
  if (call == "socket" || call == "connect") {
    return {thrown(socketFailure(reason), Goal::kMissed), harmless()};
  }
  if (call == "accept") {
    return {logged(escaped("Server::readFdEvent: Failed to accept() -> " + reason))};
  }
  if (call == "getsockopt") {  // the credentials, or the loop asking whether a socket listens
    return {lostWith("Server::validateConnection\\( \\d+\\) => " + escaped(reason)), harmless()};
  }
  if (call == "F_GETFL" || call == "F_SETFL") {
    return ofFlags(scenario, call == "F_SETFL", reason);
  }
  if (call == "read") {
    return ofRead(scenario, fault.error, reason);
  }
  if (call == "write") {
    return ofWrite(scenario, fault.error, reason);
  }
  const std::string change = loopFailure("epoll_ctl", reason);
  if (call == "EPOLL_CTL_ADD") {  // setting up, admitting a client that is then lost, or connecting
    return {lostWith("", change), thrown(change, Goal::kMissed)};
  }
  if (call == "EPOLL_CTL_MOD") {
    return {thrown(change, Goal::kEither)};
  }
  if (call == "epoll_wait" && fault.error != EINTR) {
    return {thrown(loopFailure("epoll_wait", reason), Goal::kReached)};
  }
  const Alternative noLoop =
      thrown(loopFailure("making a descriptor of its own", reason), Goal::kMissed);
  if (call == "epoll_create1" || call == "timerfd_create") {
    return {noLoop};
  }
  if (call == "eventfd") {  // the loop's own, or a probe for the limit of descriptors
    return {noLoop, harmless()};
  }
  if (call == "timerfd_settime") {  // construction, a callback, or a teardown that cannot throw
    const auto failure = loopFailure("timerfd_settime", reason);
    return {thrown(failure, Goal::kMissed), thrown(failure, Goal::kReached), harmless()};
  }
  if (call == "malloc") {
    return ofAllocation();
  }
  return {harmless()};  // close, EPOLL_CTL_DEL, poll, an interrupted epoll_wait
}

}  // namespace

std::string unexplained(const Scenario& scenario, const Injection::Fault& fault, const Run& run) {
  if (run.blocksLeft != 0) {
    return "blocks of memory left: " + std::to_string(run.blocksLeft);
  }
  if (run.nameLeft) {
    return "the name is still taken";
  }
  const auto allowed = alternatives(scenario, fault);
  const bool explained = std::any_of(allowed.begin(), allowed.end(), [&](const auto& alternative) {
    return matches(scenario, alternative, run);
  });
  return explained ? ""
                   : std::string(run.reached ? "goal reached" : "goal missed") +
                         ", descriptors left: " + std::to_string(run.descriptorsLeft) +
                         "\nexceptions:\n" + run.exceptions + "logged:\n" + run.errors;
}

}  // namespace Faults
