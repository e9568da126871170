#pragma once

#include "tool/Options.h"
#include "tool/Verbs.h"

namespace tool {

/// What the user wants: a verb and its options, or a text to print instead (help, version).
struct Command {
  const Verb* verb = nullptr;
  Options options;
  std::string text;
};

/// @throws Failure for a command line that is not understood.
Command parseCommandLine(int argc, char** argv);

/// The largest name that an address has room for.
constexpr std::size_t kLargestName = 106;

}  // namespace tool
