#pragma once

// Private. How every source of this library writes diagnostics: a source defines TOVIK_SOURCE_PATH,
// its own path without the extension, includes this header, and says
//
//     TOVIK_LOG(0, "createSocket: Failed to GETFL -> " << std::strerror(errno));
//
// Nothing in the second argument is evaluated unless the level is enabled at that moment.
//
//   level 0  errors
//   level 1  a connection's life: accepted, validated, subscribed, terminated
//   level 2  events
//   level 3  the text of every message
//
// The texts are what operators search for. They are kept as they are, odd ones included.

#include "Kelvo/Platform/Debug.h"

namespace Tovik {

/// The channel's handler: asked for once for each source file, by the first statement that logs.
static inline Kelvo::Platform::RawDebugHandler& debugHandler() {
  static Kelvo::Platform::RawDebugHandler* const handler =
      Kelvo::Platform::_getRawDebugHandler("Tovik", false);
  return *handler;
}

}  // namespace Tovik

// NOLINTBEGIN(bugprone-macro-parentheses): the pieces are a chain of insertions
#define TOVIK_LOG(level, pieces)                                                      \
  do {                                                                                \
    if (auto& tovikHandler = ::Tovik::debugHandler(); tovikHandler.enabled(level)) {  \
      Kelvo::Platform::DebugStream tovikStream;                                       \
      tovikStream << pieces;                                                          \
      tovikHandler.output(tovikStream, level, TOVIK_SOURCE_PATH, __func__, __LINE__); \
    }                                                                                 \
  } while (false)
// NOLINTEND(bugprone-macro-parentheses)
