#pragma once

#include <cstdint>
#include <string>

// Processes of blocking clients: many that connect at once, each on a thread of its own, and one
// that sends without a pause.

namespace Soak {

struct BurstFigures {
  std::uint64_t answered = 0;
  std::uint64_t wrong = 0;    // answers
  std::uint64_t failed = 0;   // refused, or lost their server
  std::uint64_t longest = 0;  // nanoseconds from before the connect to the answer
};

/// With each command: so many clients connect at once, call and close.
void runBursts(const std::string& name, int commands);

/// With each command: sends notes for so many milliseconds; answers with their number.
void runFlood(const std::string& name, int commands);

}  // namespace Soak
