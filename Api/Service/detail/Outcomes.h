#pragma once

// Private. What both kinds of call need: requests as text, replies as outcomes.

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "Api/Service/Proxy.h"
#include "Api/Service/detail/Convention.h"

namespace Tovik {

using Clock = std::chrono::steady_clock;

/// When a time limit that begins now is over.
Clock::time_point after(Proxy::Seconds limit);

/// A request as it is to be sent, but for its id.
struct Outgoing {
  std::string subject;  // "lamp: switch", for errors
  std::string body;
};

/// Why the message cannot be sent; or nothing. It fills in the rest.
std::optional<Outcome> prepare(const std::string& server, const Message& message,
                               Outgoing& outgoing);

/// The record that makes the request with this id.
std::string textOf(const Outgoing& outgoing, std::uint64_t id);

/// An end without a reply.
Outcome ended(Outcome::End end, int status, const std::string& subject, const std::string& why);

/// "no reply within 0.5 s".
std::string within(const std::string& what, Proxy::Seconds limit);

/// The outcome that a reply makes; nothing, which is logged, if its status is none.
std::optional<Outcome> outcomeOf(Message reply, const std::string& subject);

}  // namespace Tovik
