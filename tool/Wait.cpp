// wait: a look at the kernel's table, again and again.

#include <algorithm>

#include "tool/Kernel.h"
#include "tool/Output.h"
#include "tool/Run.h"
#include "tool/Verb.h"

namespace tool {

namespace {

constexpr double kPauseSeconds = 0.02;

struct WaitOptions {
  std::vector<std::string> names;
  bool gone = false;
};

class Wait {
 public:
  Wait(const WaitOptions& options, const Common& common, Run& run)
      : options_(options),
        common_(common),
        run_(run),
        output_(common),
        missing_(options.names),
        deadline_(common.timeLimit(5), [this] { return late(); }) {
    look_.arm(0);
    deadline_.restart();
  }

 private:
  void look() {
    const auto found = listeners(false);
    const auto done = [&](const std::string& name) { return satisfied(name, found); };
    missing_.erase(std::remove_if(missing_.begin(), missing_.end(), done), missing_.end());
    if (missing_.empty()) {
      return run_.finish();
    }
    look_.arm(kPauseSeconds);
  }

  bool satisfied(const std::string& name, const std::vector<Listener>& found) {
    const bool listens = std::any_of(found.begin(), found.end(), [&](const Listener& listener) {
      return listener.name == name && (!common_.serverUid || listener.uid == common_.serverUid);
    });
    if (listens == options_.gone) {
      return false;
    }
    if (output_.json()) {
      Tovik::Message message;
      message.SetObject();
      addNameTo(message, name);
      addMember(message, "listening", listens);
      output_.message(message);
    }
    return true;
  }

  std::string late() const {
    std::string names;
    for (const std::string& name : missing_) {
      names += (names.empty() ? "" : ", ") + inQuotes(name);
    }
    const bool one = missing_.size() == 1;
    return names +
           (!options_.gone ? " did not listen within "
            : one          ? " still listens after "
                           : " still listen after ") +
           seconds(common_.timeLimit(5)) + (options_.gone ? "; end " : "; start ") +
           (one ? "it, or give it" : "them, or give them") + " more with --timeout.";
  }

  const WaitOptions& options_;
  const Common& common_;
  Run& run_;
  Output output_;
  std::vector<std::string> missing_;
  Alarm look_{[this] { look(); }};
  Deadline deadline_;
};

}  // namespace

void addWait(Program& program) {
  const auto run = [](const WaitOptions& options, const Common& common) {
    Run loop(Ending::kIsFailure);
    const Wait wait(options, common, loop);
    loop.untilFinished();
  };
  auto [verb, options] =
      program.verb<WaitOptions>("wait", "waits until each server listens",
                                "Looks into the kernel's table and does not connect, so the "
                                "servers notice nothing. The time-out is 5 seconds.",
                                run);
  verb.arguments(kName, Needed::kYes, name(options.names))
      .flag("--gone", options.gone, "wait until none of them listens");
}

}  // namespace tool
