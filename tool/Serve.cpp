// serve: the library's server, with an answer from the command line. message -> (command) -> reply;
// standard input -> broadcast.

#include <unistd.h>

#include <csignal>
#include <deque>
#include <memory>
#include <utility>

#include "Api/Json/Server.h"
#include "tool/Lines.h"
#include "tool/Listening.h"
#include "tool/Output.h"
#include "tool/Run.h"
#include "tool/Shell.h"
#include "tool/Verbs.h"

namespace tool {

namespace {

/// A server that the stand-in can ask to forget connections before they are freed.
class StandInServer : public Tovik::Server {
 public:
  StandInServer(const std::string& name, Handler handler, Validator validator,
                std::function<void()> beforeFreeing)
      : Server(name, std::move(handler), std::move(validator)),
        beforeFreeing_(std::move(beforeFreeing)) {}

  void readFdEvent(int fd) override {
    beforeFreeing_();
    Server::readFdEvent(fd);
  }

 private:
  std::function<void()> beforeFreeing_;
};

class StandIn {
 public:
  StandIn(const Options& options, Run& run)
      : options_(options),
        run_(run),
        output_(options),
        admission_(options),
        server_(
            options.name, [this](auto& client, const auto& message) { take(client, message); },
            [this](int pid, unsigned uid, unsigned gid) { return admission_(pid, uid, gid); },
            [this] { forgetTheDead(); }) {
    if (!options.notify.empty()) {
      lines_ =
          std::make_unique<Lines>(options.notify, [this](const auto& line) { broadcast(line); });
      lines_->want();
    }
    notice("listening under " + inQuotes(options.name) + "; Ctrl-C ends.");
  }

 private:
  /// A message that waits for its command to run.
  struct Job {
    Tovik::Connection* client;  // null if it has gone
    std::string text;
  };

  void take(Tovik::Connection& client, const Tovik::Message& message) {
    output_.message(message);
    if (output_.closed()) {
      return run_.finish(Exit::kSuccess);
    }
    if (options_.exec.empty()) {
      return client.acknowledge(static_cast<unsigned>(options_.status.value_or(0)));
    }
    jobs_.push_back({&client, Tovik::Message::toStr(message, false).data()});
    startJob();
  }

  /// One command at a time, so that answers come in the order of the messages.
  void startJob() {
    if (command_ || jobs_.empty()) {
      return;
    }
    command_.emplace(options_.exec, jobs_.front().text, [this](unsigned status) {
      if (jobs_.front().client != nullptr) {
        jobs_.front().client->acknowledge(status);
      }
      jobs_.pop_front();
      next_.arm(0);  // not from here: the command's object is in use
    });
  }

  void startNextJob() {
    command_.reset();
    startJob();
  }

  void forgetTheDead() {
    for (Job& job : jobs_) {
      if (job.client != nullptr && !job.client->isAttached()) {
        job.client = nullptr;
      }
    }
  }

  /// A bad line must not end a server that others use.
  void broadcast(const std::optional<std::string>& line) {
    if (!line) {
      return;
    }
    if (!isBlank(*line)) {
      try {
        server_.notifyClients(messageFrom(
            sendable(*line, "line " + std::to_string(lines_->number()) + " of the input")));
      } catch (const Failure& failure) {
        report(failure.what());
      }
    }
    lines_->want();
  }

  const Options& options_;
  Run& run_;
  Output output_;
  const Admission admission_;
  std::deque<Job> jobs_;
  std::optional<ShellCommand> command_;
  Alarm next_{[this] { startNextJob(); }};
  StandInServer server_;
  std::unique_ptr<Lines> lines_;
};

/// Valid JSON of the wrong shape ends a server by assertion, and this is one. The assertion has
/// been printed; say what it means.
void explainAbort(int /*signal*/) {
  static const char text[] =
      "tovik: a client sent valid JSON of the wrong shape, which ends any server; find it with "
      "'tovik check', or put 'tovik relay --refuse-unsafe' in between.\n";
  [[maybe_unused]] const auto written = ::write(STDERR_FILENO, text, sizeof text - 1);
}

}  // namespace

Exit runServe(const Options& options) {
  std::signal(SIGABRT, explainAbort);
  Run run(Ending::kIsSuccess);
  return listening(options.name, [&] {
    const StandIn standIn(options, run);
    return run.untilFinished();
  });
}

}  // namespace tool
