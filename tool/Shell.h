#pragma once

#include <functional>
#include <optional>
#include <string>

#include "tool/Run.h"

namespace tool {

/// A shell command that runs while the event loop goes on.
class ShellCommand {
 public:
  /// `finished` gets the exit status, or 128 and the signal's number for a command that was killed.
  ShellCommand(const std::string& command, const std::string& input,
               std::function<void(unsigned)> finished);
  ShellCommand(const ShellCommand&) = delete;
  ShellCommand& operator=(const ShellCommand&) = delete;
  /// Ends the command if it still runs.
  ~ShellCommand();

 private:
  void lookAtEnd();

  const std::function<void(unsigned)> finished_;
  int pid_ = -1;  // until it has been waited for
  int pidFd_ = -1;
  std::optional<Watch> end_;
};

}  // namespace tool
