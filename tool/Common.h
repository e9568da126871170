#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace tool {

/// What every verb takes.
struct Common {
  std::optional<double> timeout;  // seconds, 0 for ever; without one, the verb has its default
  std::string json;               // "short", "pretty" or none
  bool jsonByTerminal = false;
  std::string color = "auto";
  std::optional<std::uint64_t> serverUid;
  int verbose = 0;
  bool quiet = false;

  double timeLimit(double unlessGiven) const { return timeout.value_or(unlessGiven); }
};

}  // namespace tool
