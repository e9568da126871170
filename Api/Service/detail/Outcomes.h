#pragma once

// Private. What a proxy and the blocking call both need: requests as text, replies as outcomes.

#include <cstdint>
#include <optional>
#include <string>

#include "Api/Service/Proxy.h"
#include "Api/Service/detail/Convention.h"

namespace Tovik {

/// A request as it is to be sent, but for its id.
struct Outgoing {
  std::string subject;  // "lamp: switch", for errors
  std::string body;
};

/// "lamp: switch".
std::string subjectOf(const std::string& server, const Message& message);

/// Why the message cannot be sent; or nothing, and its body has been filled in.
std::optional<Outcome> prepare(const Message& message, Outgoing& outgoing);

/// The record that makes the request with this id.
std::string textOf(const Outgoing& outgoing, std::uint64_t id);

/// An end without a reply.
Outcome ended(Outcome::End end, int status, const std::string& subject, const std::string& why);

/// "0.5 s".
std::string shown(Proxy::Seconds time);

bool isReply(const Message& message);

/// The outcome that a reply makes; nothing, which is logged, if its status is none.
std::optional<Outcome> outcomeOf(Message reply, const std::string& subject);

}  // namespace Tovik
