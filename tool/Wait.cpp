// wait: a look at the kernel's table, again and again.

#include <algorithm>
#include <string>
#include <vector>

#include "tool/Json.h"
#include "tool/Kernel.h"
#include "tool/Output.h"
#include "tool/Run.h"
#include "tool/Verb.h"

namespace tool {

namespace {

struct WaitOptions {
  std::vector<std::string> names;
  bool gone = false;
};

std::string lateText(const std::vector<std::string>& missing, const WaitOptions& options) {
  std::string names;
  for (const std::string& name : missing) {
    names += (names.empty() ? "" : ", ") + inQuotes(name);
  }
  const bool one = missing.size() == 1;
  return names +
         (!options.gone ? " did not listen within "
          : one         ? " still listens after "
                        : " still listen after ") +
         secondsText(common.timeLimit()) + (options.gone ? "; end " : "; start ") +
         (one ? "it, or give it" : "them, or give them") + " more with --timeout.";
}

void waitFor(const WaitOptions& options) {
  constexpr double kLookAgain = 0.02;
  Run run(Ending::kIsFailure);
  Output output;
  auto missing = options.names;
  const auto look = [&] {
    const auto found = listeners(false);
    const auto satisfied = [&](const std::string& name) {
      const bool listens = std::any_of(found.begin(), found.end(), [&](const Listener& listener) {
        return listener.name == name && (!common.serverUid || listener.uid == common.serverUid);
      });
      if (listens != options.gone && output.json()) {
        output.message(Object().name(name).add("listening", listens).text());
      }
      return listens != options.gone;
    };
    missing.erase(std::remove_if(missing.begin(), missing.end(), satisfied), missing.end());
    return missing.empty();
  };
  run.within(
      common.timeLimit(), look, [&] { return lateText(missing, options); }, kLookAgain);
}

}  // namespace

void addWait(CLI::App& program) {
  auto [verb, options] = addVerb(program, "wait", "waits until each server listens",
                                 "Looks into the kernel's table and does not connect, so the "
                                 "servers notice nothing. The time-out is 5 seconds.",
                                 waitFor);
  verb.argument("NAME...", name(options.names))
      .flag("--gone", options.gone, "wait until none of them listens");
}

}  // namespace tool
