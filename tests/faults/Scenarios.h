#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tests/faults/Injection.h"
#include "tests/support/Support.h"

namespace Faults {

/// One run of a scenario, and what it came to.
struct Run {
  Run();

  /// Turns the thread's loop until the condition holds, or nothing has happened for a while. What
  /// leaves the loop is noted, and the loop turned on.
  bool turnUntil(const std::function<bool()>& condition);

  /// Notes the exception at hand.
  void noteException();

  const std::string name = uniqueName();  // of its server

  bool reached = false;  // the scenario's goal
  // Lines, in memory that was taken beforehand, so that noting one changes no balance.
  std::string exceptions;  // "name: text"
  std::string errors;      // texts of level 0, the start-up line left out
  int descriptorsLeft = 0;
  long blocksLeft = 0;
  bool nameLeft = false;
};

/// A piece of use of the library. True if it went as it does without a fault. Exceptions out of the
/// library's constructors and calls leave it.
struct Scenario {
  const char* name;
  bool (*body)(Run& run);
  bool reconnects;  // its client makes up for a lost connection
  bool blocks;      // its client waits for an answer: a lost connection is an exception
};

const std::vector<Scenario>& scenarios();

/// Says why what a run came to is not among what the fault may lead to; empty if it is.
std::string unexplained(const Scenario& scenario, const Injection::Fault& fault, const Run& run);

}  // namespace Faults
