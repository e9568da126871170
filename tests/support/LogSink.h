#pragma once

#include <functional>
#include <utility>

#include "Kelvo/Platform/Debug.h"

/// Takes the records of the channel "Tovik" while it lives, of the levels in `mask`.
class LogSink {
 public:
  LogSink(unsigned mask, std::function<void(const Kelvo::Platform::DebugRecord&)> take) {
    Kelvo::Platform::setDebugSink("Tovik", std::move(take));
    Kelvo::Platform::setDebugLevels("Tovik", mask);
  }
  LogSink(const LogSink&) = delete;
  LogSink& operator=(const LogSink&) = delete;
  ~LogSink() {
    Kelvo::Platform::setDebugLevels("Tovik", 0);
    Kelvo::Platform::setDebugSink("Tovik", nullptr);
  }
};
