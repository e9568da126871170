// The outcomes that each fault may have, written down from what the library promises and without a
// look at what it does. A fault may meet one of several callers, so it has several alternatives;
// an outcome has to be one of them as a whole.

#include "tests/faults/Oracle.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <regex>

namespace Faults {

namespace {

enum class Goal { kReached, kMissed, kEither };

struct Alternative {
  Goal goal = Goal::kReached;
  std::string exception = {};  // the whole text
  std::string error = {};      // a regular expression for the one line of level 0
  bool lost = false;           // the connection at hand ends as well
  bool unanswered = false;     // the blocking client may wait in vain
  int descriptorsLeft = 0;
};

// A scenario limits its blocking client's waits, and this is how the end of one shows.
constexpr const char* kWaitedInVain = "Tovik::SocketException: Resource temporarily unavailable";

std::string escaped(const std::string& text) {
  return std::regex_replace(text, std::regex(R"([.^$|()\[\]{}*+?\\])"), R"(\$&)");
}

// The same, if the server closes before it has read what the client sent.
constexpr const char* kLossSeenByAsyncClient =
    "AsyncSender::asynRead(): read failed -> Connection reset by peer";

const std::regex& lossSeenByBlockingClient() {
  static const std::regex pattern("Tovik::SocketException: (Broken pipe|Connection reset by peer)");
  return pattern;
}

bool matches(const Scenario& scenario, const Alternative& alternative, const Outcome& outcome) {
  auto goal = alternative.goal;
  auto exceptions = outcome.exceptions;
  auto errors = outcome.errors;
  if (alternative.lost) {
    if (scenario.reconnects && errors.size() > (alternative.error.empty() ? 0U : 1U) &&
        errors.back() == kLossSeenByAsyncClient) {
      errors.pop_back();
    }
    goal = scenario.reconnects ? Goal::kReached : Goal::kEither;
    if (scenario.blocks && !exceptions.empty() &&
        std::regex_match(exceptions.back(), lossSeenByBlockingClient())) {
      exceptions.pop_back();
    }
  }
  if (alternative.unanswered && !exceptions.empty() && exceptions.back() == kWaitedInVain) {
    exceptions.pop_back();
  }
  const bool goalFits = goal == Goal::kEither || (goal == Goal::kReached) == outcome.reached;
  const bool exceptionFits = alternative.exception.empty()
                                 ? exceptions.empty()
                                 : exceptions == std::vector<std::string>{alternative.exception};
  const bool errorFits =
      alternative.error.empty()
          ? errors.empty()
          : errors.size() == 1 && std::regex_match(errors[0], std::regex(alternative.error));
  return goalFits && exceptionFits && errorFits &&
         outcome.descriptorsLeft == alternative.descriptorsLeft;
}

Alternative harmless() {
  return {};
}

Alternative lostWith(const std::string& error) {
  Alternative alternative;
  alternative.error = error;
  alternative.lost = true;
  return alternative;
}

Alternative thrown(const std::string& exception, Goal goal) {
  Alternative alternative;
  alternative.exception = exception;
  alternative.goal = goal;
  return alternative;
}

Alternative logged(const std::string& error, Goal goal) {
  Alternative alternative;
  alternative.error = error;
  alternative.goal = goal;
  return alternative;
}

std::string loopFailure(const std::string& what, const std::string& reason) {
  return "Kelvo::Exception: EventLoop: " + what + " failed: " + reason;
}

std::vector<Alternative> ofServerSetUp(const std::string& reason) {
  return {thrown("Tovik::SocketException: " + reason, Goal::kMissed)};
}

std::vector<Alternative> ofClientSocket(const Scenario& scenario, const std::string& reason) {
  auto alternatives = ofServerSetUp(reason);
  if (scenario.reconnects) {
    alternatives.push_back(harmless());
  }
  return alternatives;
}

std::vector<Alternative> ofRead(const Scenario& scenario, int error, const std::string& reason) {
  std::vector<Alternative> alternatives;
  alternatives.push_back(lostWith(
      error == EAGAIN ? "" : "AsyncSender::asynRead\\(\\): read failed -> " + escaped(reason)));
  if (scenario.blocks) {
    alternatives.push_back(thrown("Tovik::SocketException: " + reason, Goal::kMissed));
  }
  return alternatives;
}

std::vector<Alternative> ofWrite(const Scenario& scenario, int error, const std::string& reason) {
  std::vector<Alternative> alternatives;
  if (error == EAGAIN) {
    alternatives.push_back(harmless());
  } else if (error == EPIPE) {
    alternatives.push_back(lostWith(""));
  } else {
    alternatives.push_back(
        logged("AsyncSender::flushQueue\\(\\): write error " + escaped(reason), Goal::kReached));
  }
  if (scenario.blocks) {
    alternatives.push_back(
        logged("Client::sendMsg\\(\\): Failed to write\\(\\) " + escaped(reason), Goal::kMissed));
  }
  return alternatives;
}

std::vector<Alternative> ofFlags(const Scenario& scenario, bool setting,
                                 const std::string& reason) {
  const std::string step = setting ? "SETFL" : "GETFL";
  const std::string end = ": Failed to " + step + " -> " + escaped(reason);
  auto server = lostWith("Server::readFdEvent" + end);
  if (setting) {  // the server leaves this client's descriptor open, and nobody serves it
    server.lost = false;
    server.goal = Goal::kMissed;
    server.descriptorsLeft = 1;
    server.exception =
        scenario.blocks ? "Tovik::SocketException: Resource temporarily unavailable" : "";
  }
  return {server, logged("createSocket" + end, Goal::kReached)};
}

std::vector<Alternative> ofRegistration(const std::string& reason) {
  // Setting up, admitting a client that is then lost, or connecting.
  auto admission = lostWith("");
  admission.exception = loopFailure("epoll_ctl", reason);
  return {admission, thrown(admission.exception, Goal::kMissed)};
}

std::vector<Alternative> ofAllocation() {
  auto lost = lostWith("");
  auto lostAndThrown = lost;
  lostAndThrown.exception = "std::bad_alloc";
  auto thrownOnly = thrown("std::bad_alloc", Goal::kEither);
  thrownOnly.unanswered = true;
  return {harmless(), lost, lostAndThrown, thrownOnly};
}

std::vector<Alternative> alternatives(const Scenario& scenario, const Injection::Fault& fault) {
  const std::string reason = std::strerror(fault.error);
  const std::string& call = fault.call;
  if (call == "socket" || call == "connect") {
    return ofClientSocket(scenario, reason);
  }
  if (call == "bind" || call == "listen") {
    return ofServerSetUp(reason);
  }
  if (call == "accept") {
    return {logged("Server::readFdEvent: Failed to accept\\(\\) -> " + escaped(reason),
                   Goal::kReached)};
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
  if (call == "EPOLL_CTL_ADD") {
    return ofRegistration(reason);
  }
  if (call == "EPOLL_CTL_MOD") {
    return {thrown(loopFailure("epoll_ctl", reason), Goal::kEither)};
  }
  if (call == "epoll_wait" && fault.error != EINTR) {
    return {thrown(loopFailure("epoll_wait", reason), Goal::kReached)};
  }
  if (call == "epoll_create1" || call == "timerfd_create") {
    return {thrown(loopFailure("making a descriptor of its own", reason), Goal::kMissed)};
  }
  if (call == "eventfd") {  // the loop's own, or a probe for the limit of descriptors
    return {thrown(loopFailure("making a descriptor of its own", reason), Goal::kMissed),
            harmless()};
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

std::string describe(const Outcome& outcome) {
  std::string text = outcome.reached ? "goal reached" : "goal missed";
  for (const auto& exception : outcome.exceptions) {
    text += "; exception " + exception;
  }
  for (const auto& error : outcome.errors) {
    text += "; logged " + error;
  }
  if (outcome.descriptorsLeft != 0) {
    text += "; descriptors left: " + std::to_string(outcome.descriptorsLeft);
  }
  return text;
}

}  // namespace

std::string unexplained(const Scenario& scenario, const Injection::Fault& fault,
                        const Outcome& outcome) {
  if (outcome.blocksLeft != 0) {
    return "blocks of memory left: " + std::to_string(outcome.blocksLeft);
  }
  if (outcome.nameLeft) {
    return "the name is still taken";
  }
  const auto allowed = alternatives(scenario, fault);
  const bool explained = std::any_of(allowed.begin(), allowed.end(), [&](const auto& alternative) {
    return matches(scenario, alternative, outcome);
  });
  return explained ? "" : describe(outcome);
}

}  // namespace Faults
