#pragma once

#include <cstdint>
#include <string>

// What the library logs in the scenarios is known. Every process checks its own lines; what is
// found is counted in memory that all share, so that a killed process's count is not lost.

namespace Soak {

/// To be called by the parent before it starts children.
void shareLogFigures();

/// Checks this process's lines from now on; enables these levels.
void watchLog(unsigned levels);
void setLogLevels(unsigned levels);

struct LogFigures {
  std::uint64_t lines = 0;
  std::uint64_t strange = 0;  // with a text that nobody expects, or of a level that is not enabled
};

LogFigures logFigures();

}  // namespace Soak
