// What a broker delivers to the bridge, and what local programs ask of it. Nothing ends the
// process; each local call has its one last reply; and whatever the bridge publishes is fit for a
// broker. The bridge's connection is replaced by one that the input speaks through.
//
// Of a record, the first byte says what happens, the rest up to a '|' is a topic or the like, what
// follows the payload.

#include <mosquitto.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "fuzz/Reader.h"
#include "fuzz/Support.h"
#include "mqtt/Broker.h"
#include "mqtt/Export.h"
#include "mqtt/Import.h"

namespace {

using bridge::Publication;
using fuzz::require;

/// The far end of a connection to the broker.
struct Wire {
  std::function<void(bool)> setUp;
  bridge::Broker::Handlers handlers;
};
std::vector<Wire> wires;
std::vector<Publication> published;

}  // namespace

namespace bridge {

Broker::Broker(const Settings& settings, Role role, Handlers handlers)
    : settings_(settings),
      role_(std::move(role)),
      handlers_(std::move(handlers)),
      delay_(0),
      retry_([] {}),
      ticking_([] {}) {
  wires.push_back({[this](bool up) {
                     isUp_ = up;
                     up ? handlers_.up() : handlers_.down();
                   },
                   handlers_});
}

Broker::~Broker() = default;

void Broker::publish(Publication publication) {
  require(mosquitto_pub_topic_check(publication.topic.c_str()) == MOSQ_ERR_SUCCESS,
          "a topic that is none: " + publication.topic);
  require(publication.responseTopic.empty() || !publication.correlation.empty(),
          "a call whose reply cannot be told from others");
  published.push_back(std::move(publication));
}

void Broker::readFdEvent(int /*fd*/) {}
void Broker::writeFdEvent(int /*fd*/) {}

}  // namespace bridge

namespace {

class Bridge {
 public:
  Bridge() {
    wires.clear();
    published.clear();
    settings_.prefix = "site";
    settings_.exported = {"tovik-fuzz-exported"};
    settings_.allowed["tovik-fuzz-exported"] = {"ping", "get"};
    settings_.timeout = 1000;
    import_ = std::make_unique<bridge::Import>(settings_, bridge::Settings::Imported{name_, "far"});
    export_ = std::make_unique<bridge::Export>(settings_, "tovik-fuzz-exported");
    setUp(true);
  }
  ~Bridge() {
    local_.reset();
    import_.reset();
    export_.reset();
  }

  void run(std::string_view input) {
    for (const auto& batch : fuzz::batchesOf(input)) {
      for (const auto& record : batch) {
        if (!record.empty()) {
          step(record);
        }
      }
    }
  }

 private:
  void step(const std::string& record) {
    const auto bar = std::min(record.find('|'), record.size());
    const std::string topic = record.substr(1, bar - 1);
    const std::string payload = record.substr(std::min(bar + 1, record.size()));
    perform(record[0], topic, payload);
    turnUntilIdle();
    takeReplies();
  }

  void perform(char action, const std::string& topic, const std::string& payload) {
    switch (action) {
      case 'o':
        return toImport("far/online", payload);
      case 'a':
        return toImport("far/about", payload);
      case 'e':
        return toImport("far/event" + topic, payload);
      case 'r':
        return reply(payload);
      case 'R':
        return toImport(replies(), payload, topic);
      case 'n':
        return refuse(topic.empty() ? 0 : static_cast<unsigned char>(topic[0]));
      case 'c':
        return wires[1].handlers.arrived(
            {"site/tovik-fuzz-exported/call" + topic, payload, "answers", "1", {}});
      case 'd':
        return setUp(false);
      case 'u':
        return setUp(true);
      case 'l':
        return ask(payload);
      case 'x':
        return local_.reset();
    }
  }

  void setUp(bool up) {
    for (const auto& wire : wires) {
      wire.setUp(up);
    }
  }

  static void toImport(const std::string& topic, const std::string& payload,
                       const std::string& correlation = "") {
    wires[0].handlers.arrived({topic, payload, "", correlation, {}});
  }

  /// Where the import expects replies; only a call tells.
  static std::string replies() {
    return published.empty() ? "tovik/reply/unknown" : published.back().responseTopic;
  }

  static void reply(const std::string& payload) {
    if (!published.empty()) {
      toImport(replies(), payload, published.back().correlation);
    }
  }

  static void refuse(int reason) {
    if (!published.empty()) {
      const Publication last = published.back();
      wires[0].handlers.refused(last, reason);
    }
  }

  /// Through the local name, which is open only while the remote server is there.
  void ask(const std::string& request) {
    if (local_.get() < 0 && import_->counters()["there"].GetBool()) {
      local_ = rawConnect(name_);
      require(local_.get() >= 0, "cannot connect");
      turnUntilIdle();
    }
    if (local_.get() >= 0) {
      fuzz::sendRecord(local_.get(), request);
    }
  }

  void takeReplies() {
    if (local_.get() < 0) {
      return;
    }
    for (std::string record; (record = rawReceiveNow(local_.get())) != "<nothing>";) {
      if (record == "<end>" || record == "<error>") {
        return local_.reset();
      }
      require(record.size() <= 4094, "a record too long");
      require(fuzz::read(record).root != fuzz::Text::Root::kNotJson, "not JSON: " + record);
    }
  }

  const std::string name_ = uniqueName();
  bridge::Settings settings_;
  std::unique_ptr<bridge::Import> import_;
  std::unique_ptr<bridge::Export> export_;
  Fd local_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  return fuzz::converse<Bridge>(data, size);
}
