// tovik: the command for operators and scripts.

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <exception>

#include "Kelvo/Exception.h"
#include "Kelvo/Platform/Debug.h"
#include "tool/CommandLine.h"
#include "tool/Output.h"
#include "tool/Run.h"

namespace {

/// A closed standard stream's number must not come back as a socket's: what is printed would go
/// there.
void openStandardStreams() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (::fcntl(fd, F_GETFD) < 0) {
      [[maybe_unused]] const int opened = ::open("/dev/null", O_RDWR);
    }
  }
}

tool::Exit runCommand(int argc, char** argv) {
  const tool::Command command = tool::parseCommandLine(argc, argv);
  if (!command.text.empty()) {
    tool::Output(command.options).text(command.text);
    return tool::Exit::kSuccess;
  }
  tool::setQuiet(command.options.quiet);
  const int levels = std::min(command.options.verbose, 4);
  Kelvo::Platform::setDebugLevels("Tovik", (1U << levels) - 1U);
  return command.verb->run(command.options);
}

}  // namespace

int main(int argc, char** argv) {
  openStandardStreams();
  std::signal(SIGPIPE, SIG_IGN);
  try {
    return static_cast<int>(runCommand(argc, argv));
  } catch (const tool::Failure& failure) {
    tool::report(failure.what());
    return static_cast<int>(failure.status());
  } catch (const tool::Interrupted& interrupted) {
    tool::dieOf(interrupted.signal);
  } catch (const Kelvo::Exception& error) {
    tool::report(std::string("the system refused: ") + error.what() +
                 "; free some resources and try again.");
  } catch (const std::exception& error) {
    tool::report(std::string("the command failed: ") + error.what() +
                 "; free some resources and try again.");
  }
  return static_cast<int>(tool::Exit::kLost);
}
