#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_set>

#include "Api/Service/Proxy.h"
#include "Api/Service/Service.h"
#include "mqtt/Broker.h"

namespace bridge {

/// A server of this machine, on the broker below PREFIX/NAME: its events, its description, whether
/// it is there, and calls of it. A server that does not describe itself is a plain one.
class Export {
 public:
  Export(const Settings& settings, const std::string& name);

  /// For the statistics.
  Tovik::Message counters() const;

 private:
  struct Topic {
    bool keepsLast = false;
    bool isCurrent = false;           // came from the server as it runs now
    std::optional<std::string> last;  // if it keeps it
  };
  struct Caller {
    std::string command;  // empty: none, of a plain server
    std::string responseTopic;
    std::string correlation;
  };

  // the server
  void describe(void (Export::*then)(Tovik::Message description));
  void follow(Tovik::Message description);
  void followPlain();
  void onEvent(const std::string& topic, const Tovik::Message& event);
  void appear(Tovik::Message description);
  void disappear();

  // the broker
  void announce();
  void forget(const std::string& topic);
  void publishState(const std::string& level, std::string payload);

  // calls
  void onArrival(const Arrival& call);
  bool isRepeated(const Caller& caller);
  Tovik::Message requestOf(const Arrival& call, const Caller& caller) const;
  void requireReplyable(const Caller& caller) const;
  void requireAllowed(const Tovik::Message& request) const;
  void answer(const Caller& caller, unsigned status, const std::string& error);
  void answer(const Caller& caller, const Tovik::Outcome& outcome);
  void send(const Caller& caller, std::string reply);

  const Settings& settings_;
  const std::string name_;
  const std::string base_;  // PREFIX/NAME
  Broker broker_;
  std::map<std::string, Topic> topics_;
  std::set<std::string> gone_;  // topics that were there before
  std::string about_;
  bool isThere_ = false;
  int inFlight_ = 0;
  std::unordered_set<std::string> seen_;  // correlations, of late
  std::deque<std::string> seenInOrder_;
  std::uint64_t calls_ = 0, refused_ = 0, repeated_ = 0, events_ = 0;
  // Last, since they end their calls when they are destroyed.
  Tovik::Proxy server_;
  std::unique_ptr<Tovik::Proxy> notifications_;  // of a plain server
};

}  // namespace bridge
