#pragma once

#include <string>
#include <vector>

#include "tests/faults/Injection.h"
#include "tests/faults/Scenarios.h"

namespace Faults {

/// What a run came to.
struct Outcome {
  bool reached = false;                 // the scenario's goal
  std::vector<std::string> exceptions;  // as "name: text"
  std::vector<std::string> errors;      // texts of level 0, the start-up line left out
  int descriptorsLeft = 0;
  long blocksLeft = 0;
  bool nameLeft = false;
};

/// Says why an outcome is not among those that the fault may have; empty if it is.
std::string unexplained(const Scenario& scenario, const Injection::Fault& fault,
                        const Outcome& outcome);

}  // namespace Faults
