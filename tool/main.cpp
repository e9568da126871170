// tovik: the command for operators and scripts.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <clocale>
#include <csignal>
#include <exception>

#include "Kelvo/Exception.h"
#include "Kelvo/Platform/Debug.h"
#include "tool/Help.h"
#include "tool/Options.h"
#include "tool/Output.h"
#include "tool/Report.h"
#include "tool/Run.h"

namespace {

using tool::Common;

/// A closed standard stream's number must not come back as a socket's: what is printed would go
/// there.
void openStandardStreams() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (::fcntl(fd, F_GETFD) < 0) {
      [[maybe_unused]] const int opened = ::open("/dev/null", O_RDWR);
    }
  }
}

void addCommonOptions(CLI::App& program, Common& common) {
  program.set_help_flag("-h,--help", "explain the verb");
  program.set_version_flag("-V,--version", "tovik " TOVIK_VERSION, "print the version");
  tool::addSeconds(program, "-t,--timeout", common.timeout,
                   "time limit, 0 for ever; see each verb");
  tool::addChoice(program, "--json", common.json, "short|pretty",
                  "print JSON, on one line or indented");
  tool::addFlag(program, "-j", common.jsonByTerminal,
                "print JSON: pretty on a terminal, short in a pipe");
  tool::addFlag(program, "-q,--quiet", common.quiet,
                "print no results and no notices, only errors");
  tool::addFlag(program, "-v,--verbose", common.verbose,
                "show the library's debug channel; -vv, -vvv, -vvvv show more levels");
  tool::addNumber(program, "--server-uid", common.serverUid, "UID", 0, tool::kUint32,
                  "talk only to a server of this user");
  tool::addChoice(program, "--color", common.color, "auto|always|never",
                  "colour in JSON and bars; auto: on a terminal unless NO_COLOR is set");
}

void addVerbs(CLI::App& program, const Common& common) {
  for (const auto add :
       {tool::addList, tool::addPeers, tool::addTop, tool::addWait, tool::addCall, tool::addSend,
        tool::addDescribe, tool::addMonitor, tool::addServe, tool::addRelay, tool::addReplay,
        tool::addCheck, tool::addBench, tool::addCompletion, tool::addHelp}) {
    add(program, common);
  }
}

/// The options that every verb takes are read before any verb runs.
void applyCommonOptions(const Common& common) {
  tool::setQuiet(common.quiet);
  Kelvo::Platform::setDebugLevels("Tovik", (1U << std::min(common.verbose, 4)) - 1U);
}

tool::Exit runCommand(int argc, char** argv) {
  Common common;
  CLI::App program("Talks to the message servers of this machine.", "tovik");
  program.formatter(std::make_shared<tool::Help>());
  program.require_subcommand(1);
  addCommonOptions(program, common);
  addVerbs(program, common);
  program.parse_complete_callback([&common] { applyCommonOptions(common); });
  try {
    program.parse(tool::guarded(argc, argv));
  } catch (const CLI::CallForHelp&) {
    tool::Output(common).text(program.help());
  } catch (const CLI::CallForVersion&) {
    tool::Output(common).line(program.version());
  } catch (const CLI::ParseError& error) {
    throw tool::usageFailure(program, error);
  }
  return tool::Exit::kSuccess;
}

}  // namespace

int main(int argc, char** argv) {
  openStandardStreams();
  std::signal(SIGPIPE, SIG_IGN);
  std::setlocale(LC_CTYPE, "C.UTF-8");  // for the width of characters
  try {
    return static_cast<int>(runCommand(argc, argv));
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
