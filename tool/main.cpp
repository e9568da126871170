// tovik: the command for operators and scripts.

#include <fcntl.h>
#include <unistd.h>

#include <clocale>
#include <csignal>
#include <exception>
#include <string>

#include "Kelvo/Exception.h"
#include "tool/Report.h"
#include "tool/Run.h"
#include "tool/Verb.h"

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

}  // namespace

int main(int argc, char** argv) {
  openStandardStreams();
  std::signal(SIGPIPE, SIG_IGN);
  std::setlocale(LC_CTYPE, "C.UTF-8");  // for the width of characters
  try {
    tool::runProgram(argc, argv);
    return static_cast<int>(tool::Exit::kSuccess);
  } catch (const tool::Failure& failure) {
    tool::report(failure.what());
    return static_cast<int>(failure.status());
  } catch (const tool::OutputClosed&) {
    return static_cast<int>(tool::Exit::kOutput);
  } catch (const tool::Interrupted& interrupted) {
    tool::dieOf(interrupted.signal);
  } catch (const Kelvo::Exception& error) {
    tool::report(std::string("the system refused: ") + error.what() + ".");
  } catch (const std::exception& error) {
    tool::report(std::string("the command failed: ") + error.what() + ".");
  }
  return static_cast<int>(tool::Exit::kLost);
}
