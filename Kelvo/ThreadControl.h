#pragma once

#include <atomic>

#include "Export.h"

namespace Kelvo {

/// Tells the library whether the process shares its objects between threads.
struct KELVO_API ThreadControl {
  /// While clear, counted handles (`Ptr`) count with plain loads and stores; once set, with atomic
  /// read-modify-writes. The base library sets it when a second thread makes an event loop. An
  /// application whose threads share handles without loops of their own sets it itself, before it
  /// starts them. It is never cleared again.
  static std::atomic<bool> tsp_;
};

}  // namespace Kelvo
