#pragma once

#include <mosquitto.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Kelvo/Platform/FdEventHandler.h"
#include "Kelvo/Ptr.h"
#include "mqtt/Settings.h"
#include "tool/Run.h"

namespace bridge {

struct Publication {
  std::string topic;
  std::string payload;
  bool retain = false;
  bool isEvent = false;  // waits while the broker is away, the last one of each topic
  std::string responseTopic = {};
  std::string correlation = {};
  std::uint32_t expiry = 0;  // seconds; 0: none
};

struct Arrival {
  std::string topic;
  std::string payload;
  std::string responseTopic;
  std::string correlation;
  std::optional<std::uint32_t> expiry;  // seconds
};

/// A connection to the broker, for one exported or imported name: so each name has a Last Will of
/// its own. Connects by itself, and again after each loss, later and later up to half a minute.
/// Each time it does so as a new client without a session, so what it has sent once is never sent
/// again behind its owner's back: calls and replies are lost with the connection, and of the events
/// that are not confirmed, or come while the broker is away, the last one of each topic waits here.
class Broker : private Kelvo::Platform::FdEventHandler {
 public:
  /// What the connection is for.
  struct Role {
    std::string subject;  // in the log
    std::string clientId;
    std::vector<std::string> filters;  // subscribed to in this order
    int options;                       // of the subscriptions
    std::string will;                  // the topic that is then "false"; empty: none
    std::uint32_t largestPacket;       // that the broker may send
  };
  /// All are called from the loop; none may destroy the broker.
  struct Handlers {
    std::function<void()> up;
    std::function<void()> down;
    std::function<void(const Arrival&)> arrived;
    /// The broker has not passed a publication on, for this reason of MQTT's.
    std::function<void(const Publication&, int reason)> refused;
  };
  struct Counters {
    std::uint64_t connected = 0;  // how often
    std::uint64_t dropped = 0;    // events and replies that were not delivered
    std::uint64_t refused = 0;    // by the broker
  };

  Broker(const Settings& settings, Role role, Handlers handlers);
  ~Broker() override;

  bool isUp() const noexcept { return isUp_; }
  const Counters& counters() const noexcept { return counters_; }
  std::size_t waiting() const noexcept { return waiting_.size() + last_.size(); }

  /// Confirmed by the broker, or counted as dropped; nothing else is forgotten.
  void publish(Publication publication);

 private:
  /// What the library's callbacks have seen during one of its functions. They run inside of C code,
  /// so they only note it down.
  struct Seen {
    std::optional<int> connected, disconnected;
    std::vector<std::pair<int, int>> published;  // identifier, reason
    std::vector<std::pair<int, int>> subscribed;
    std::vector<Arrival> arrivals;
    bool isAnswered = false;  // the last packet, by the library
    std::string error;
  };
  struct Waiting {
    std::uint64_t number;  // in the order of publishing
    Publication publication;
  };
  struct Client {
    void operator()(mosquitto* client) const { mosquitto_destroy(client); }
  };

  void connect();
  int begin();
  void setCallbacks();
  void readFdEvent(int fd) override;
  void writeFdEvent(int fd) override;
  void tick();
  bool hasFailed(int fd);
  void handle(int result);
  std::string reasonOf(int result, const Seen& seen) const;
  std::string unexplained(const std::string& why) const;
  void becomeUp();
  void lose(const std::string& reason);
  void watch();

  void queue(Waiting next);
  void thin();
  void keep(Waiting event);
  std::vector<Waiting> takeLast();
  static bool isOlder(const Waiting& a, const Waiting& b);
  void sayWhatWasDropped(const std::string& when);
  void flush();
  void hand(Waiting next);
  void settle();
  void settle(int identifier, int reason);

  const Settings& settings_;
  const Role role_;
  const Handlers handlers_;
  std::unique_ptr<mosquitto, Client> client_;
  Kelvo::Ptr<Kelvo::Platform::FdControl> control_;
  bool isUp_ = false;
  bool onlyIpv4_ = false;
  double delay_;
  int seconds_ = 0;     // since the attempt to connect began, or has succeeded
  int shortLives_ = 0;  // of connections, one after the other
  std::string lastReason_;
  Seen seen_;
  std::map<int, std::string> subscriptions_;          // not confirmed yet
  std::deque<std::pair<int, Waiting>> inFlight_;      // not confirmed yet
  std::deque<Waiting> waiting_;                       // while the broker does not keep up
  std::map<std::string, Waiting, std::less<>> last_;  // while it is away
  std::size_t bytes_ = 0;                             // of the latter two
  std::uint64_t lastNumber_ = 0;
  std::uint64_t droppedBefore_ = 0;  // of counters_.dropped, what has been said
  Counters counters_;
  tool::Alarm retry_, ticking_;
};

}  // namespace bridge
