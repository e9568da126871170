// relay: accept -> conversation -> each record is shown, recorded and passed on or refused. With
// --replay, the clients' side of a recording is a conversation, too.

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <list>
#include <optional>
#include <utility>

#include "Api/Json/Server.h"
#include "tool/Conversation.h"
#include "tool/Lint.h"
#include "tool/Listening.h"
#include "tool/Output.h"
#include "tool/Replay.h"
#include "tool/Run.h"
#include "tool/Verbs.h"

namespace tool {

namespace {

/// Listens and admits as the library's server does, and hands out the accepted sockets.
class Door : public Tovik::Server {
 public:
  using Taker = std::function<void(int fd, int pid, unsigned uid)>;

  Door(const Options& options, Taker taker)
      : Server(
            options.name, [](Tovik::Connection&, const Tovik::Message&) {},
            [this, admission = Admission(options)](int pid, unsigned uid, unsigned gid) {
              pid_ = pid;
              uid_ = uid;
              return admission(pid, uid, gid);
            }),
        taker_(std::move(taker)) {}

  void readFdEvent(int fd) override {
    const int client = ::accept4(fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (client < 0) {
      return notice(std::string("a client cannot be accepted: ") + std::strerror(errno) +
                    "; end some others.");
    }
    if (!validateConnection(client)) {
      ::close(client);
      return;
    }
    taker_(client, pid_, uid_);
  }

 private:
  const Taker taker_;
  int pid_ = 0;
  unsigned uid_ = 0;
};

/// Why a record must not be passed on: what it would do to a process of the library. Too long ones
/// run into the next, so nobody can say.
std::string danger(const Record& record) {
  if (record.text.size() > kLargestText) {
    return "it has " + counted(record.text.size(), "byte") + ", more than a record carries whole";
  }
  const Lint judged = lint(asRead(record.text));
  return record.direction == Direction::kToServer ? judged.endsServer : judged.endsClient;
}

class Relay {
 public:
  Relay(const Options& options, std::vector<Record> script, Run& run)
      : options_(options),
        run_(run),
        output_(options),
        recorder_(options.record),
        door_(options, [this](int fd, int pid, unsigned uid) { begin(fd, pid, uid); }) {
    notice("listening under " + inQuotes(options.name) + " for " + inQuotes(options.upstream) +
           "; Ctrl-C ends.");
    if (!options.replay.empty()) {
      replay_.emplace(
          options, std::move(script),
          [this]() -> Conversation& { return begin(-1, ::getpid(), ::getuid()); },
          [this] { run_.finish(Exit::kSuccess); });
    }
  }

 private:
  Conversation& begin(int fd, int pid, unsigned uid);
  bool passes(Record record);
  void print(const Record& record, const Tovik::Message& recording);
  void ended(const Record& stamp, const Failure& why);
  void sweep();

  const Options& options_;
  Run& run_;
  Output output_;
  Recorder recorder_;
  const Conversation::Hooks hooks_{
      [this](Record record) { return passes(std::move(record)); },
      [this](const Record& stamp, const Failure& why) { ended(stamp, why); }};
  std::list<Conversation> conversations_;
  std::uint64_t connections_ = 0;
  std::optional<Replay> replay_;
  Alarm sweep_{[this] { sweep(); }};
  Door door_;
};

Conversation& Relay::begin(int fd, int pid, unsigned uid) {
  Record stamp;
  stamp.connection = ++connections_;
  stamp.pid = pid;
  stamp.uid = uid;
  notice("connection " + std::to_string(stamp.connection) + ": process " + std::to_string(pid) +
         ", uid " + std::to_string(uid) + ".");
  return conversations_.emplace_back(stamp, options_, hooks_, fd);
}

bool Relay::passes(Record record) {
  const std::string why = options_.refuseUnsafe ? danger(record) : "";
  record.refused = !why.empty();
  const Tovik::Message recording = recordingOf(record);
  recorder_.write(recording);
  print(record, recording);
  if (record.refused) {
    notice("connection " + std::to_string(record.connection) +
           ": a record was not passed on: " + why + "; 'tovik check' tells its sender more.");
  } else if (replay_ && record.direction == Direction::kToClient) {
    replay_->saw(record);
  }
  return !record.refused;
}

void Relay::print(const Record& record, const Tovik::Message& recording) {
  if (output_.json()) {
    output_.message(recording);
  } else {
    const bool toServer = record.direction == Direction::kToServer;
    const std::string arrow =
        painted(toServer ? "->" : "<-", toServer ? "36" : "35", output_.colour());
    output_.line(std::to_string(record.connection) + " " + arrow + " " + escaped(record.text) +
                 (record.refused ? painted(" (refused)", "31", output_.colour()) : ""));
  }
  if (output_.closed()) {
    run_.finish(Exit::kSuccess);
  }
}

void Relay::ended(const Record& stamp, const Failure& why) {
  notice("connection " + std::to_string(stamp.connection) + ": " + why.what());
  if (replay_) {
    replay_->ended(stamp.connection, why);
  }
  sweep_.arm(0);
}

/// Drops the conversations that are over; those that have ended may still have something to pass
/// on.
void Relay::sweep() {
  conversations_.remove_if([](const Conversation& conversation) { return conversation.over(); });
  for (const Conversation& conversation : conversations_) {
    if (conversation.ended()) {
      return sweep_.arm(0.01);
    }
  }
}

}  // namespace

Exit runRelay(const Options& options) {
  auto script = options.replay.empty() ? std::vector<Record>{} : readRecording(options.replay);
  Run run(options.replay.empty() ? Ending::kIsSuccess : Ending::kIsFailure);
  return listening(options.name, [&] {
    const Relay relay(options, std::move(script), run);
    return run.untilFinished();
  });
}

}  // namespace tool
