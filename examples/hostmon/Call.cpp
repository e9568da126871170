// The caller without an event loop: one command after the other, each with its answer.

#include <iostream>

#include "Api/Service/Proxy.h"
#include "examples/hostmon/Hostmon.h"

namespace Hostmon {

namespace {

constexpr Tovik::Proxy::Seconds kLimit(5);

/// The result if there is one.
std::string shown(const Tovik::Outcome& outcome) {
  const auto result = outcome.get<Tovik::Message>();
  return result ? Tovik::Message::toStr(*result, false).data() : "done";
}

}  // namespace

int call(const std::string& name, const std::vector<std::string>& commands) {
  bool done = true;
  for (const auto& command : commands) {
    Tovik::Message msg;
    msg.Parse(command.c_str());
    const auto outcome = Tovik::call(name, msg, kLimit);
    std::cout << command << " -> " << (outcome ? shown(outcome) : outcome.error) << std::endl;
    done = done && outcome;
  }
  return done ? 0 : 1;
}

}  // namespace Hostmon
