#pragma once

#include <functional>
#include <string>

#include "Kelvo/Platform/FdEventHandler.h"
#include "Kelvo/Ptr.h"

namespace tool {

/// A shell command that runs while the event loop goes on.
class ShellCommand : private Kelvo::Platform::FdEventHandler {
 public:
  /// `finished` gets the exit status, or 128 and the signal's number for a command that was killed.
  ShellCommand(const std::string& command, const std::string& input,
               std::function<void(unsigned)> finished);
  /// Ends the command if it still runs.
  ~ShellCommand() override;

 private:
  void readFdEvent(int fd) override;

  const std::function<void(unsigned)> finished_;
  int pid_ = -1;  // until it has been waited for
  int pidFd_ = -1;
  Kelvo::Ptr<Kelvo::Platform::FdControl> control_;
};

}  // namespace tool
