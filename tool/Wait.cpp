// wait: a look at the kernel's table, again and again.

#include <algorithm>

#include "tool/Output.h"
#include "tool/Run.h"
#include "tool/Session.h"
#include "tool/Table.h"
#include "tool/Verbs.h"

namespace tool {

namespace {

constexpr double kPauseSeconds = 0.02;

class Wait {
 public:
  Wait(const Options& options, Run& run)
      : options_(options),
        run_(run),
        output_(options),
        missing_(options.names),
        look_([this] { look(); }),
        deadline_(timeLimit(options, 5), [this] { return late(); }) {
    look_.arm(0);
    deadline_.restart();
  }

 private:
  void look() {
    const auto found = listeners(false);
    const auto done = [&](const std::string& name) { return satisfied(name, found); };
    missing_.erase(std::remove_if(missing_.begin(), missing_.end(), done), missing_.end());
    if (missing_.empty()) {
      return run_.finish(Exit::kSuccess);
    }
    look_.arm(kPauseSeconds);
  }

  bool satisfied(const std::string& name, const std::vector<Listener>& found) {
    const bool listens = std::any_of(found.begin(), found.end(), [&](const Listener& listener) {
      return listener.name == name && (!options_.serverUid || listener.uid == options_.serverUid);
    });
    if (listens == options_.gone) {
      return false;
    }
    if (output_.json()) {
      Tovik::Message message;
      message.SetObject();
      addString(message, "name", name);
      addNumber(message, "listening", listens);
      output_.message(message);
    }
    return true;
  }

  std::string late() const {
    return inQuotes(missing_.front()) +
           (options_.gone ? " still listens after " : " did not listen within ") +
           seconds(timeLimit(options_, 5)) + (options_.gone ? "; end it" : "; start it") +
           ", or give it more with --timeout.";
  }

  const Options& options_;
  Run& run_;
  Output output_;
  std::vector<std::string> missing_;
  Alarm look_;
  Deadline deadline_;
};

}  // namespace

Exit runWait(const Options& options) {
  Run run(Ending::kIsFailure);
  const Wait wait(options, run);
  return run.untilFinished();
}

}  // namespace tool
