#include "Api/Service/detail/Outcomes.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <sstream>
#include <utility>

namespace Tovik {

namespace {

constexpr std::size_t kLongestBody = 4071;  // what the longest id leaves
constexpr std::uint64_t kLargestStatus = 2147483647;
constexpr std::size_t kMostParts = 4096;  // 16 MiB at most

std::string reasonFor(const Message& reply, unsigned status) {
  if (auto error = get<std::string>(reply, "error")) {
    return *std::move(error);
  }
  return status < 1000 ? std::strerror(static_cast<int>(status))
                       : "status " + std::to_string(status);
}

}  // namespace

std::string subjectOf(const std::string& server, const Message& message) {
  return server + ": " + get<std::string>(message, "command").value_or("call");
}

std::optional<Outcome> prepare(const Message& message, Outgoing& outgoing) {
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

std::string shown(Proxy::Seconds time) {
  std::ostringstream text;
  text << time.count() << " s";
  return text.str();
}

bool isReply(const Message& message) {
  return get<std::string>(message, "type") == "reply";
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

}  // namespace Tovik
