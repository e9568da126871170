// relay: accept -> conversation -> each record is shown, recorded and passed on or refused, byte
// for byte: the library's own server would take some records apart, and die of others. Either
// side's end ends the conversation, once the other side has got what is on its way.

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <functional>
#include <list>
#include <string>
#include <utility>

#include "tool/Json.h"
#include "tool/Listening.h"
#include "tool/Recording.h"
#include "tool/Session.h"
#include "tool/Verb.h"

namespace tool {

namespace {

struct RelayOptions {
  std::string name;
  std::string upstream;
  std::string record;
  bool refuseUnsafe = false;
  bool timestamps = false;
};

/// Listens and admits as the library's server does, and hands out the accepted sockets.
class Door : public Tovik::Server {
 public:
  using Taker = std::function<void(int fd, int pid, unsigned uid)>;

  Door(const std::string& name, Taker taker)
      : Server(
            name, [](Tovik::Connection&, const Tovik::Message&) {},
            [this, admits = validator({})](int pid, unsigned uid, unsigned gid) {
              pid_ = pid;
              uid_ = uid;
              return admits(pid, uid, gid);
            }),
        taker_(std::move(taker)) {}

  void readFdEvent(int fd) override {
    const int client = ::accept4(fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (client < 0) {
      return notice(std::string("a client cannot be accepted: ") + std::strerror(errno) + ".");
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

/// One client's way to the server.
class Conversation {
 public:
  Conversation(const RelayOptions& options, RecordLog& log, Record stamp, int clientFd)
      : options_(options),
        log_(log),
        stamp_(std::move(stamp)),
        client_(*this, "the client", Session::AcceptedFd{clientFd}),
        server_(*this, options.upstream, 0.0) {
    say("process " + std::to_string(stamp_.pid) + ", uid " + std::to_string(stamp_.uid) + ".");
    limit_.limit(common.timeLimit());  // for the connection
  }

  bool over() const { return over_; }

 private:
  /// The connection to the client or to the server.
  class Side : public Session {
   public:
    template <class Way>
    Side(Conversation& conversation, const std::string& name, Way way)
        : Session(name, way), conversation_(conversation) {}

    void pass(const std::string& text) {
      constexpr std::size_t kMostWaiting = 8 << 20;  // bytes, for a side that does not read
      constexpr std::size_t kOverhead = 64;          // of one text
      send(text);
      waiting_ += text.size() + kOverhead;
      if (waiting_ > kMostWaiting) {  // unless some of it has gone out since it was counted
        waiting_ = 0;
        for (const auto& each : sendQueue_) {
          waiting_ += each.size() + kOverhead;
        }
      }
      if (waiting_ > kMostWaiting) {
        conversation_.dropSlow(*this);
      }
    }
    bool hasAll() const { return gone_ || (allWritten() && allTaken()); }
    void close() {
      gone_ = true;
      endQuietly();
    }

   private:
    void connected() override { conversation_.limit_.disarm(); }
    void received(std::string record) override { conversation_.take(*this, std::move(record)); }
    void lost(int error) override {
      gone_ = true;
      conversation_.leave(*this, error == 0 ? "the server left." : lostFailure().what());
    }
    void notConnected(int error) override {
      gone_ = true;
      conversation_.leave(*this, notConnectedFailure(error).what());
    }

    Conversation& conversation_;
    std::size_t waiting_ = 0;  // bytes in the queue, at most
    bool gone_ = false;
  };

  /// Shows what came from one side, and passes it on to the other.
  void take(const Side& from, std::string text) {
    if (leaving_) {
      return;
    }
    stamp_.direction = &from == &client_ ? Direction::kToServer : Direction::kToClient;
    stamp_.text = std::move(text);
    const std::string why = options_.refuseUnsafe ? danger(stamp_) : "";
    stamp_.refused = !why.empty();
    log_.show(stamp_);
    if (stamp_.refused) {
      return say("a record was not passed on: " + why + ".");
    }
    (&from == &client_ ? server_ : client_).pass(stamp_.text);
  }

  /// One side has left, or never came. The other one gets what is on its way, within the limit.
  void leave(const Side& side, const std::string& why) {
    if (!std::exchange(leaving_, true)) {
      say(&side == &client_ ? "the client left." : why);
      limit_.limit(common.timeLimit());
      look_.arm(0);  // not from here: a side's callback runs
    }
  }

  void dropSlow(const Side& side) {
    drop(&side == &client_ ? "the client does not read." : "the server does not read.");
  }

  void look() {
    over_ = over_ || (client_.hasAll() && server_.hasAll());
    if (over_) {
      client_.close();
      server_.close();
      limit_.disarm();
    } else {
      look_.arm(0.01);  // only the kernel knows
    }
  }

  void drop(const std::string& why) {
    say(why);
    leaving_ = over_ = true;
    look_.arm(0);
  }

  std::string late() const {
    return leaving_ ? "the other side did not read on; dropped." : server_.lateText();
  }

  void say(const std::string& what) const {
    notice("connection " + std::to_string(stamp_.connection) + ": " + what);
  }

  const RelayOptions& options_;
  RecordLog& log_;
  Record stamp_;
  bool leaving_ = false;
  bool over_ = false;
  Alarm look_{[this] { look(); }};
  Alarm limit_{[this] { drop(late()); }};
  Side client_;
  Side server_;
};

void relay(const RelayOptions& options) {
  if (options.name == options.upstream) {
    throw Failure(Exit::kUsage,
                  inQuotes(options.name) + " would be its own server; name another one.");
  }
  Run run(Ending::kIsSuccess);
  RecordLog log(options.record, options.timestamps);
  std::list<Conversation> conversations;
  Record stamp;
  listening(options.name, [&] {
    const Door door(options.name, [&](int fd, int pid, unsigned uid) {
      ++stamp.connection;
      stamp.pid = pid;
      stamp.uid = uid;
      conversations.emplace_back(options, log, stamp, fd);
    });
    notice("listening under " + inQuotes(options.name) + " for " + inQuotes(options.upstream) +
           "; Ctrl-C ends.");
    run.until([&] {
      conversations.remove_if([](const Conversation& each) { return each.over(); });
      return false;
    });
  });
}

}  // namespace

void addRelay(CLI::App& program) {
  auto [verb, options] = addVerb(
      program, "relay", "stands between clients and a server and shows both directions",
      "Listens under NAME, connects to UPSTREAM for each client, and passes every record on, byte "
      "for byte. Admits its own user and root. The server sees the relay's credentials, not the "
      "clients'. The time-out, 5 seconds, is for connecting, and for one side to read what is left "
      "after the other has closed.",
      relay);
  verb.argument(kName, name(options.name))
      .argument("UPSTREAM", name(options.upstream))
      .option("--record", kFile, text(options.record),
              "append every record to FILE, as JSON lines: time, direction, connection, pid, uid, "
              "text; 'tovik replay' plays them")
      .flag("--refuse-unsafe", options.refuseUnsafe,
            "do not pass on what would end the receiving process or does not fit into a record")
      .flag("--timestamps", options.timestamps, "the time of arrival before each record");
}

}  // namespace tool
