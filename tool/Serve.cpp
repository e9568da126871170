// serve: the library's server, with an answer from the command line. message -> (command) -> reply;
// standard input -> broadcast.

#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "tool/Json.h"
#include "tool/Lines.h"
#include "tool/Listening.h"
#include "tool/Output.h"
#include "tool/Verb.h"

namespace tool {

namespace {

struct ServeOptions {
  std::string name;
  std::uint32_t status = 0;
  std::string exec;
  std::string answer;
  std::string describe;
  std::string notify;
  Admitted admitted;
  bool timestamps = false;
};

Failure cannotRun(int error) {
  return {Exit::kLost, std::string("the command cannot be run: ") + std::strerror(error) + "."};
}

/// A file in memory that holds the whole input: unlike a pipe, it has room for any, so that nobody
/// waits for the command to read.
int fileHolding(const std::string& input) {
  const int fd = ::memfd_create("message", MFD_CLOEXEC);
  if (fd < 0 || ::pwrite(fd, input.data(), input.size(), 0) < 0) {
    throw cannotRun(errno);
  }
  return fd;
}

/// Starts a shell as any program expects to be started: with default signals, and without the
/// sockets, whose names an inherited descriptor would keep taken.
int startShell(const std::string& command, int input) {
  const int pid = ::fork();
  if (pid == 0) {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    std::signal(SIGPIPE, SIG_DFL);
    ::dup2(input, STDIN_FILENO);
    ::closefrom(STDERR_FILENO + 1);
    ::execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
    ::_exit(127);
  }
  if (pid < 0) {
    throw cannotRun(errno);
  }
  return pid;
}

/// A shell command that runs while the event loop goes on.
class ShellCommand {
 public:
  /// `finished` gets the exit status, or 128 and the signal's number for a command that was killed.
  ShellCommand(const std::string& command, const std::string& input,
               std::function<void(unsigned)> finished)
      : finished_(std::move(finished)) {
    const int file = fileHolding(input);
    pid_ = startShell(command, file);
    ::close(file);
    pidFd_ = static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0));
    if (pidFd_ < 0) {
      throw cannotRun(errno);
    }
    end_.emplace(pidFd_, [this] { lookAtEnd(); });
  }
  ShellCommand(const ShellCommand&) = delete;
  ShellCommand& operator=(const ShellCommand&) = delete;
  /// Ends the command if it still runs.
  ~ShellCommand() {
    end_.reset();
    ::close(pidFd_);
    if (pid_ > 0) {
      ::kill(pid_, SIGTERM);  // not waited for yet, so the number is still the command's
    }
  }

 private:
  void lookAtEnd() {
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) != pid_) {
      return;
    }
    end_->detach();
    pid_ = -1;
    finished_(
        static_cast<unsigned>(WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status)));
  }

  const std::function<void(unsigned)> finished_;
  int pid_ = -1;  // until it has been waited for
  int pidFd_ = -1;
  std::optional<Watch> end_;
};

/// The process at the other end of a connection. The library keeps the descriptor for subclasses.
class Peer : public Tovik::Connection {
 public:
  static ucred of(const Tovik::Connection& client) {
    ucred credentials{};
    socklen_t size = sizeof credentials;
    ::getsockopt((client.*(&Peer::fdControl_))->fd(), SOL_SOCKET, SO_PEERCRED, &credentials, &size);
    return credentials;
  }
};

/// The value as compact text, if a reply can carry it.
std::string resultFor(const std::string& json, const std::string& what) {
  constexpr std::size_t kRest = 80;  // type, status and id
  if (json.empty()) {
    return {};
  }
  Lint judged = lint(json);
  if (!judged.notJson.empty()) {
    throw Failure(Exit::kUsage, what + " is not JSON (" + judged.notJson + ").");
  }
  if (judged.compact.size() + kRest > kLargestText) {
    throw Failure(Exit::kUsage, what + " has " + std::to_string(judged.compact.size()) +
                                    " bytes, more than a reply carries.");
  }
  return std::move(judged.compact);
}

/// A whole file or "-".
std::string contentOf(Run& run, const std::string& file) {
  std::string text;
  if (!file.empty()) {
    Lines lines(run, file);
    while (const auto line = lines.next()) {
      text += *line + "\n";
    }
  }
  return text;
}

/// The server: it can ask to forget connections before they are freed.
class StandIn : public Tovik::Server {
 public:
  StandIn(const ServeOptions& options, std::string description)
      : Server(
            options.name, [this](auto& client, const auto& message) { take(client, message); },
            validator(options.admitted)),
        options_(options),
        answer_(resultFor(options.answer, "the answer")),
        description_(std::move(description)) {
    notice("listening under " + inQuotes(options.name) + "; Ctrl-C ends.");
  }

  void readFdEvent(int fd) override {
    for (Job& job : jobs_) {
      if (job.client != nullptr && !job.client->isAttached()) {
        job.client = nullptr;
      }
    }
    Server::readFdEvent(fd);
  }

  /// A bad line must not end a server that others use.
  void broadcast(const std::string& line, std::size_t number) {
    try {
      notifyClients(
          messageFrom(sendable(line, "line " + std::to_string(number) + " of the input")));
    } catch (const Failure& failure) {
      report(failure.what());
    }
  }

 private:
  /// A message that waits for its command to run.
  struct Job {
    Tovik::Connection* client;  // null if it has gone
    std::string text;
    std::string id;
  };

  void take(Tovik::Connection& client, const Tovik::Message& message) {
    const std::string text = Tovik::Message::toStr(message, false).data();
    show(client, text);
    const std::string id(memberText(text, "id"));
    if (!description_.empty() && memberText(text, "command") == R"("describe")") {
      return reply(client, 0, id, description_);
    }
    if (options_.exec.empty()) {
      return reply(client, options_.status, id, answer_);
    }
    jobs_.push_back({&client, text, id});
    startJob();
  }

  void show(const Tovik::Connection& client, const std::string& text) const {
    if (!options_.timestamps) {
      return printJson(text);
    }
    const ucred sender = Peer::of(client);
    const std::string time = timestamp();
    printJson(Tovik::object("time", time, "pid", sender.pid, "uid", sender.uid),
              painted(time, "2") + " " + std::to_string(sender.pid) + " ", text);
  }

  /// A call with an id is answered with it, also while the client is subscribed.
  static void reply(Tovik::Connection& client, unsigned status, const std::string& id,
                    const std::string& result) {
    if (id.empty() && result.empty()) {
      return client.acknowledge(status);
    }
    auto message = Tovik::object("type", "reply", "status", status);
    if (!id.empty()) {
      addMember(message, "id", messageFrom(id));
    }
    if (!result.empty()) {
      addMember(message, "result", messageFrom(result));
    }
    client.sendMsg(message);
  }

  /// One command at a time, so that answers come in the order of the messages.
  void startJob() {
    if (command_ || jobs_.empty()) {
      return;
    }
    command_.emplace(options_.exec, jobs_.front().text, [this](unsigned status) {
      const Job& job = jobs_.front();
      if (job.client != nullptr) {
        reply(*job.client, status, job.id, answer_);
      }
      jobs_.pop_front();
      next_.arm(0);  // not from here: the command's object is in use
    });
  }

  const ServeOptions& options_;
  const std::string answer_;
  const std::string description_;
  std::deque<Job> jobs_;
  std::optional<ShellCommand> command_;
  Alarm next_{[this] {
    command_.reset();
    startJob();
  }};
};

/// Valid JSON of the wrong shape ends a server by assertion, and this is one. The assertion has
/// been printed; say what it means.
void explainAbort(int /*signal*/) {
  static const char text[] =
      "tovik: a client sent valid JSON of the wrong shape, which ends any server; find it with "
      "'tovik check', or put 'tovik relay --refuse-unsafe' in between.\n";
  [[maybe_unused]] const auto written = ::write(STDERR_FILENO, text, sizeof text - 1);
}

void serve(const ServeOptions& options) {
  std::signal(SIGABRT, explainAbort);
  Run run(Ending::kIsSuccess);
  std::string description = resultFor(contentOf(run, options.describe), "the description");
  std::optional<Lines> lines;
  if (!options.notify.empty()) {
    lines.emplace(run, options.notify, "type messages to broadcast, one a line.");
  }
  listening(options.name, [&] {
    StandIn standIn(options, std::move(description));
    while (const auto line = lines ? lines->next() : std::nullopt) {
      standIn.broadcast(*line, lines->number());
    }
    run.until([] { return false; });
  });
}

}  // namespace

void addServe(CLI::App& program) {
  auto [verb, options] = addVerb(
      program, "serve", "a stand-in server to test clients against",
      "Prints each message and answers it. It is a real server: valid JSON of the wrong shape ends "
      "its process, as it ends any server's. Admits its own user and root unless told otherwise.",
      serve);
  verb.argument(kName, name(options.name))
      .option("--status", "N", number(options.status, 0, kUint32),
              "answer with status N (0 unless given)")
      .option("--answer", "JSON", text(options.answer), "answer with this result")
      .option("--describe", kFile, text(options.describe),
              "answer 'tovik describe' with the JSON in this file")
      .option("--exec", "CMD", text(options.exec),
              "run CMD in a shell for each message, with the message as standard input, and answer "
              "with its exit status")
      .option("--notify", kFile, text(options.notify),
              "broadcast each line of the file, or of standard input for -")
      .option("--allow-uid", "UID", number(options.admitted.uids, 0, kUint32),
              "admit this user (repeatable)")
      .option("--allow-gid", "GID", number(options.admitted.gids, 0, kUint32),
              "admit this group (repeatable)")
      .flag("--deny-all", options.admitted.nobody, "admit nobody")
      .flag("--timestamps", options.timestamps,
            "the time and the sender's process before each message");
}

}  // namespace tool
