#pragma once

#include "Api/Json/Types.h"

namespace Hostmon {

/// What /proc tells about the host at this moment.
struct Host {
  double load = 0;         // of the last minute
  unsigned memoryMiB = 0;  // available to programs
  double uptime = 0;       // seconds

  /// @throws std::runtime_error if a file of /proc cannot be understood.
  static Host read();

  /// {"load":...,"memory":...,"uptime":...}
  Tovik::Message toMessage() const;
};

}  // namespace Hostmon
