// relay: accept -> conversation -> each record is shown, recorded and passed on or refused, byte
// for byte: the library's own server would take some records apart, and die of others. Either
// side's end ends the conversation, once the other side has got what is on its way.

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <list>
#include <utility>

#include "tool/Lint.h"
#include "tool/Listening.h"
#include "tool/Recording.h"
#include "tool/Session.h"
#include "tool/Verb.h"

namespace tool {

namespace {

/// How many bytes may wait for a side that does not read.
constexpr std::size_t kMostWaiting = 8 << 20;

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

/// What all conversations share.
struct Shared {
  const RelayOptions& options;
  const Common& common;
  RecordLog log;
  Alarm sweep;  // drops the conversations that are over
};

/// The bytes that wait in a sender's queue.
class Waiting {
 public:
  /// A text has been queued, and of all texts so many are still there.
  bool tooMuch(std::size_t size, std::size_t stillThere) {
    constexpr std::size_t kOverhead = 64;  // of one text
    sizes_.push_back(size + kOverhead);
    bytes_ += sizes_.back();
    for (; sizes_.size() > stillThere; sizes_.pop_front()) {
      bytes_ -= sizes_.front();
    }
    return bytes_ > kMostWaiting;
  }

 private:
  std::deque<std::size_t> sizes_;
  std::size_t bytes_ = 0;
};

/// One client's way to the server: a connection to either side.
class Conversation {
 public:
  Conversation(Shared& shared, Record stamp, int clientFd)
      : shared_(shared),
        stamp_(std::move(stamp)),
        client_(*this, clientFd),
        upstream_(*this, shared.options.upstream, shared.common) {
    limit_.restart();  // for the connection
  }

  bool over() const { return over_; }

 private:
  class Client : public Tovik::AsyncSender {
   public:
    Client(Conversation& conversation, int fd) : conversation_(conversation) { setFd(fd); }

    void pass(const std::string& text) {
      sendQueue_.emplace_back(text);
      flushQueue();
      if (waiting_.tooMuch(text.size(), sendQueue_.size())) {
        conversation_.drop("the client does not read.");
      }
    }
    bool hasAll() const { return !isAttached() || sendQueue_.empty(); }
    void close() { AsyncSender::terminateConnection(); }

   private:
    void readFdEvent(int fd) override {
      std::string record;
      const long length = readRecord(fd, record);
      if (length > 0) {
        return conversation_.toServer(std::move(record));
      }
      if (length != -EAGAIN && length != -EINTR) {
        terminateConnection();
      }
    }
    void writeFdEvent(int fd) override {
      AsyncSender::writeFdEvent(fd);
      conversation_.look();
    }
    void terminateConnection() override {
      const bool ended = isAttached();
      close();
      if (ended) {
        conversation_.leave("the client left.");
      }
    }

    Conversation& conversation_;
    Waiting waiting_;
  };

  class Upstream : public Session {
   public:
    Upstream(Conversation& conversation, const std::string& name, const Common& common)
        : Session(name, common), conversation_(conversation) {}

    void pass(const std::string& text) {
      send(text);
      if (waiting_.tooMuch(text.size(), sendQueue_.size())) {
        conversation_.drop("the server does not read.");
      }
    }
    bool hasAll() const { return gone_ || (allWritten() && allTaken()); }
    void close() {
      gone_ = true;
      AsyncSender::terminateConnection();
    }

   private:
    void connected() override { conversation_.limit_.disarm(); }
    void received(std::string record) override { conversation_.toClient(std::move(record)); }
    void lost(int error) override {
      gone_ = true;
      conversation_.leave(error == 0 ? "the server left." : lostFailure().what());
    }
    void notConnected(int error) override {
      gone_ = true;
      conversation_.leave(notConnectedFailure(error).what());
    }

    Conversation& conversation_;
    Waiting waiting_;
    bool gone_ = false;
  };

  void toServer(std::string text) {
    if (!leaving_ && passes(Direction::kToServer, std::move(text))) {
      upstream_.pass(stamp_.text);
    }
  }

  void toClient(std::string text) {
    if (!leaving_ && passes(Direction::kToClient, std::move(text))) {
      client_.pass(stamp_.text);
    }
  }

  /// Shows the record, which is then in `stamp_`.
  bool passes(Direction direction, std::string text) {
    stamp_.direction = direction;
    stamp_.text = std::move(text);
    const std::string why = shared_.options.refuseUnsafe ? danger(stamp_) : "";
    stamp_.refused = !why.empty();
    shared_.log.show(stamp_);
    if (stamp_.refused) {
      say("a record was not passed on: " + why + ".");
    }
    return !stamp_.refused;
  }

  /// One side has left, or never came. The other one gets what is on its way, within the time
  /// limit.
  void leave(const std::string& why) {
    if (leaving_) {
      return look();
    }
    leaving_ = true;
    say(why);
    limit_.restart();
    look_.arm(0);  // not from here: a side's callback runs
  }

  void look() {
    if (!leaving_ || over_) {
      return;
    }
    if (client_.hasAll() && upstream_.hasAll()) {
      return finish();
    }
    if (!upstream_.hasAll()) {
      look_.arm(0.01);  // only the kernel knows
    }
  }

  void drop(const std::string& why) {
    say(why);
    leaving_ = true;
    finish();
  }

  std::string late() const {
    return leaving_ ? std::string("the other side did not read on; dropped.")
                    : upstream_.lateText(shared_.common.timeLimit(5));
  }

  void finish() {
    if (!std::exchange(over_, true)) {
      limit_.disarm();
      client_.close();
      upstream_.close();
      shared_.sweep.arm(0);
    }
  }

  void say(const std::string& what) const {
    notice("connection " + std::to_string(stamp_.connection) + ": " + what);
  }

  Shared& shared_;
  Record stamp_;
  bool leaving_ = false;
  bool over_ = false;
  Alarm look_{[this] { look(); }};
  Limit limit_{shared_.common.timeLimit(5), [this] { drop(late()); }};
  Client client_;
  Upstream upstream_;
};

class Relay {
 public:
  Relay(const RelayOptions& options, const Common& common)
      : shared_{options, common, RecordLog(common, options.record, options.timestamps),
                Alarm([this] { sweep(); })},
        door_(options.name, [this](int fd, int pid, unsigned uid) { begin(fd, pid, uid); }) {
    notice("listening under " + inQuotes(options.name) + " for " + inQuotes(options.upstream) +
           "; Ctrl-C ends.");
  }

 private:
  void begin(int fd, int pid, unsigned uid) {
    Record stamp;
    stamp.connection = ++connections_;
    stamp.pid = pid;
    stamp.uid = uid;
    notice("connection " + std::to_string(stamp.connection) + ": process " + std::to_string(pid) +
           ", uid " + std::to_string(uid) + ".");
    conversations_.emplace_back(shared_, stamp, fd);
  }

  void sweep() {
    conversations_.remove_if([](const Conversation& conversation) { return conversation.over(); });
  }

  Shared shared_;
  std::list<Conversation> conversations_;
  std::uint64_t connections_ = 0;
  Door door_;
};

void relay(const RelayOptions& options, const Common& common) {
  if (options.name == options.upstream) {
    throw Failure(Exit::kUsage,
                  inQuotes(options.name) + " would be its own server; name another one.");
  }
  Run run(Ending::kIsSuccess);
  listening(options.name, [&] {
    const Relay relay(options, common);
    run.untilFinished();
  });
}

}  // namespace

void addRelay(Program& program) {
  auto [verb, options] = program.verb<RelayOptions>(
      "relay", "stands between clients and a server and shows both directions",
      "Listens under NAME, connects to UPSTREAM for each client, and passes every record on, byte "
      "for byte. Admits its own user and root. The server sees the relay's credentials, not the "
      "clients'. The time-out, 5 seconds, is for the connection, and for the other side to read "
      "on after one has left.",
      relay);
  verb.argument(kName, Needed::kYes, name(options.name))
      .argument("UPSTREAM", Needed::kYes, name(options.upstream))
      .option("--record", kFile, text(options.record),
              "append every record to FILE, as JSON lines: time, direction, connection, pid, uid, "
              "text; 'tovik replay' plays them")
      .flag("--refuse-unsafe", options.refuseUnsafe,
            "do not pass on what would end the receiving process, or what no record carries whole")
      .flag("--timestamps", options.timestamps, "the time of arrival before each record");
}

}  // namespace tool
