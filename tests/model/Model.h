#pragma once

#include <array>
#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

// What a server and its clients are to do, written down without any of the library: connections,
// records under way in them, the reply, the subscription, losses and reconnects, and what Linux
// makes of a connection whose other end has gone.

namespace model {

constexpr unsigned kRawClients = 4;       // places 0 to 3
constexpr unsigned kBlockingClients = 2;  // places 4 and 5
constexpr unsigned kAsyncClients = 3;     // places 6 to 8
constexpr unsigned kFirstAsync = kRawClients + kBlockingClients;
constexpr unsigned kClients = kFirstAsync + kAsyncClients;

/// So many small records fit into any socket; what is queued behind them is lost with the server.
constexpr std::size_t kSurelyInSocket = 100;

using Time = std::chrono::nanoseconds;
using Texts = std::deque<std::string>;

// What clients say, besides calls, echoes and notes.
constexpr const char* kOn = R"({"command":"set","notification":true})";
constexpr const char* kOff = R"({"command":"set","notification":false})";
constexpr const char* kSwallowed = R"({"command":"set","notification":1})";
constexpr const char* kNotJson = "{nonsense";

std::string reply(unsigned status);

/// One end of a connection.
struct End {
  bool open = true;
  Texts unread;
  /// The other end has gone without reading all: the next call says so, once.
  bool reset = false;
  /// A write has met that reset. What it was to write waits for the next chance, which ends it all.
  bool blocked = false;
};

/// One connection.
struct Link {
  unsigned number = 0;  // in the order of connecting
  End server, client;
  bool subscribed = false;
  // The server has gone, perhaps with texts that were not in the socket yet.
  bool mayBeCut = false;
  std::size_t readSince = 0;
};

struct Client {
  std::shared_ptr<Link> link;
  bool reading = true;
  // Of an asynchronous client.
  bool exists = false;
  bool subscribes = false;  // whenever it has connected
  Time interval{0}, deadline{0};
  Texts queue;
  Texts events;  // "connected" and what has arrived
};

class Model {
 public:
  // The server.
  void start();
  void stop();
  void notify(const std::string& text);

  // Raw and blocking clients. `send` gives the error it meets, or 0.
  bool connect(unsigned place);
  int send(unsigned place, const std::string& text);
  void close(unsigned place);
  /// The next thing that there is to read: a record, "<error>", "<end>" or "<nothing>".
  std::string next(unsigned place) const;
  void take(unsigned place);

  // Asynchronous clients.
  void create(unsigned place, bool subscribes, Time interval);
  void destroy(unsigned place);
  void asyncSend(unsigned place, const std::string& text);
  void lose(unsigned place);
  void retry(unsigned place);

  /// Everybody does what there is to do.
  void settle();

  /// Connections that wait to be accepted.
  std::size_t waiting() const { return backlog_.size(); }

  bool up = false;
  bool admits = true;
  std::array<Client, kClients> clients;

  // What the server has seen since its start, and what all have since it was last cleared.
  unsigned validations = 0;
  unsigned readEvents = 0;
  std::array<std::map<unsigned, std::vector<std::string>>, kClients> handled;  // by link
  std::map<std::string, unsigned> log;                                         // lines of level 0

 private:
  std::shared_ptr<Link> newLink();
  void accept();
  bool serverEvent(Link& link);
  void handle(Link& link, const std::string& text);
  void answer(Link& link, const std::string& text);
  bool asyncEvent(unsigned place);
  bool write(End& from, End& to, Texts& texts);
  std::optional<std::string> read(End& end);

  unsigned lastLink_ = 0;
  std::deque<std::shared_ptr<Link>> backlog_;
  std::vector<std::shared_ptr<Link>> links_;  // accepted, and open at the server
};

}  // namespace model
