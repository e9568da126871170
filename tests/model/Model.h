#pragma once

#include <array>
#include <chrono>
#include <deque>
#include <map>
#include <memory>
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

// What clients say.
enum class Kind { kCall, kEcho, kNote, kOn, kOff, kSwallowed, kNotJson };
std::string record(Kind kind, unsigned number, unsigned place);
std::string reply(unsigned status);
std::string notice(unsigned number);

// What the library logs at level 0.
extern const char* const kInvalid;
extern const char* const kReadReset;
extern const char* const kWriteReset;

/// One connection.
struct Link {
  unsigned number = 0;                         // in the order of connecting
  std::deque<std::string> toServer, toClient;  // sent and not read
  bool accepted = false;
  bool subscribed = false;
  bool clientOpen = true, serverOpen = true;
  // One end has gone without reading all: the next call of the other says so, once.
  bool resetAtServer = false, resetAtClient = false;
  // A write has met that reset. What it was to write waits for the next chance, which ends it all.
  bool serverBlocked = false, clientBlocked = false;
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
  std::deque<std::string> queue;
  std::vector<std::string> events;  // "connected" and what has arrived
};

class Model {
 public:
  explicit Model(Time now) : now_(now) {}

  // The server.
  void start();
  void stop();
  void notify(const std::string& text);

  // Raw and blocking clients. `send` gives the error it meets, or 0.
  bool connect(unsigned place);
  int send(unsigned place, const std::string& text);
  void close(unsigned place);
  /// The next thing that there is to read: a record, "<reset>", "<end>" or "<nothing>".
  std::string next(unsigned place) const;
  void take(unsigned place);

  // Asynchronous clients.
  void create(unsigned place, bool subscribes, Time interval);
  void destroy(unsigned place);
  void asyncSend(unsigned place, const std::string& text);
  void drop(unsigned place);
  void retry(unsigned place);

  void advance(Time by) { now_ += by; }

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
  static void serverCloses(Link& link);
  static void clientCloses(Link& link);
  bool asyncEvent(Client& client);
  void flush(Client& client);
  void lose(Client& client);

  Time now_;
  unsigned lastLink_ = 0;
  std::deque<std::shared_ptr<Link>> backlog_;
  std::vector<std::shared_ptr<Link>> links_;  // accepted, and open at the server
};

}  // namespace model
