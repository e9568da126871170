#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "Api/Service/Service.h"
#include "mqtt/Broker.h"

namespace bridge {

/// A server of elsewhere, under a local name that is open while the server is there. All local
/// followers of it share one subscription.
class Import {
 public:
  Import(const Settings& settings, Settings::Imported imported);

  /// For the statistics.
  Tovik::Message counters() const;

 private:
  struct Call {
    Tovik::Request request;
    double deadline;  // on the monotonic clock
  };

  void onArrival(const Arrival& arrival);
  void onEvent(const Arrival& arrival);
  void update();
  void open();
  void addCommands(const Tovik::Message& about);
  void addTopics(const Tovik::Message& about);
  void close(const std::string& reason);

  void call(const Tovik::Request& request);
  void onReply(const Arrival& arrival);
  void onRefused(const Publication& publication, int reason);
  std::map<std::uint64_t, Call>::iterator callOf(const std::string& correlation);
  void expire();

  const Settings& settings_;
  const Settings::Imported imported_;
  const std::string run_;      // a random text: tells this client and its calls from all others
  const std::string replies_;  // the topic
  bool isOnline_ = false;
  std::string about_, served_;  // descriptions: the last one, and that of the open service
  std::map<std::string, std::string> values_;  // of topics, while the service is not open
  std::map<std::uint64_t, Call> calls_;
  std::uint64_t lastCall_ = 0, refused_ = 0, timedOut_ = 0, lost_ = 0, events_ = 0, opened_ = 0;
  std::unique_ptr<Tovik::Service> service_;
  Broker broker_;
  tool::Alarm limit_, retry_;
};

}  // namespace bridge
