#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "Kelvo/Platform/EventLoop.h"

namespace Faults {

/// Lines of text in memory that was taken beforehand, so that noting one changes no balance.
class Notes {
 public:
  Notes();
  void add(std::string_view head, std::string_view tail = {});
  std::vector<std::string> lines() const;

 private:
  std::vector<std::string> lines_;
  std::size_t used_ = 0;
};

/// One run of a scenario, seen from outside.
class Run {
 public:
  explicit Run(std::string name) : name_(std::move(name)) {}

  /// The server name that belongs to this run alone.
  const std::string& name() const { return name_; }

  /// Turns the thread's loop until the condition holds, or nothing has happened for a while. What
  /// leaves the loop is noted, and the loop turned on.
  bool turnUntil(const std::function<bool()>& condition);

  /// Notes the exception at hand as "name: text".
  void noteException();

  std::vector<std::string> exceptions() const { return exceptions_.lines(); }

 private:
  const std::string name_;
  Notes exceptions_;
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

}  // namespace Faults
