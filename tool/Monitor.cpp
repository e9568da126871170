// monitor: connect -> subscribe -> acknowledged -> messages; after a loss, from the start. One
// session for each name.

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tool/Json.h"
#include "tool/Output.h"
#include "tool/Session.h"
#include "tool/Verb.h"

namespace tool {

namespace {

constexpr double kReconnectSeconds = 1;
constexpr double kPatience = 2;  // seconds until a server that does not answer is mentioned

struct MonitorOptions {
  std::vector<std::string> names;
  std::optional<std::uint64_t> count;
  std::vector<std::string> topics;
  std::vector<std::string> send;
  std::vector<std::string> where;
  bool noReconnect = false;
  bool timestamps = false;
};

/// One --where: the way to the member, and the value as JSON and as plain text.
class Condition {
 public:
  explicit Condition(const std::string& text) {
    const std::size_t equals = text.find('=');
    if (equals == std::string::npos || equals == 0) {
      throw Failure(Exit::kUsage, inQuotes(text) + " for --where is no condition; write it as in " +
                                      "--where state=on.");
    }
    key_ = text.substr(0, equals);
    value_ = text.substr(equals + 1);
    json_ = messageFrom(value_);
  }

  bool holds(const rapidjson::Value& message) const { return holds(message, key_); }

 private:
  /// "a.b" is a member of that name, or the member "b" of the member "a".
  bool holds(const rapidjson::Value& value, std::string_view key) const {
    const rapidjson::Value* const whole = Tovik::find(value, key);
    if (whole != nullptr && equals(*whole)) {
      return true;
    }
    for (std::size_t dot = key.find('.'); dot != std::string_view::npos;
         dot = key.find('.', dot + 1)) {
      const rapidjson::Value* const inner = Tovik::find(value, key.substr(0, dot));
      if (inner != nullptr && holds(*inner, key.substr(dot + 1))) {
        return true;
      }
    }
    return false;
  }

  bool equals(const rapidjson::Value& found) const {
    const bool sameText =
        found.IsString() && std::string_view(found.GetString(), found.GetStringLength()) == value_;
    return sameText || (!json_.HasParseError() && found == json_);
  }

  std::string key_;
  std::string value_;
  Tovik::Message json_;
};

/// What the monitored servers' messages come together in.
class Printer {
 public:
  explicit Printer(const MonitorOptions& options)
      : options_(options), conditions_(options.where.begin(), options.where.end()) {}

  bool done() const { return printed_ == options_.count; }

  void print(const std::string& name, std::string_view json, const rapidjson::Value& message) {
    const auto holds = [&](const Condition& condition) { return condition.holds(message); };
    if (!done() && std::all_of(conditions_.begin(), conditions_.end(), holds)) {
      show(name, json);
      ++printed_;
    }
  }

 private:
  void show(const std::string& name, std::string_view json) const {
    const bool several = options_.names.size() > 1;
    const auto time = when(options_.timestamps, timestamp());
    const JsonName shown(name);
    const auto head = Tovik::object("time", time, "name", when(several, shown.text), "name_hex",
                                    when(several && shown.hex, shown.hex.value_or("")));
    printJson(head, (time ? painted(*time, "2") + " " : "") + (several ? cell(name) + " " : ""),
              json);
  }

  const MonitorOptions& options_;
  const std::vector<Condition> conditions_;
  std::uint64_t printed_ = 0;
};

/// {"command":"subscribe","topics":[...]} for topics, else the notification switch.
std::string subscription(const MonitorOptions& options) {
  if (options.topics.empty()) {
    return R"({"command":"set","notification":true})";
  }
  std::vector<std::string> topics;
  std::transform(options.topics.begin(), options.topics.end(), std::back_inserter(topics), asUtf8);
  const auto message = Tovik::object("command", "subscribe", "topics", topics);
  return sendable(Tovik::Message::toStr(message, false).data(), "the subscription");
}

class Monitor : private Session {
 public:
  Monitor(const std::string& name, const MonitorOptions& options, Printer& printer)
      : Session(name, options.noReconnect ? 0 : kReconnectSeconds),
        options_(options),
        printer_(printer) {
    patience_.arm(kPatience);
  }

 private:
  void connected() override {
    acknowledged_ = false;
    send(subscription(options_));
    patience_.arm(kPatience);
  }

  void mentionSilence() {
    trouble("the server " + inQuotes(name()) +
            (full() ? " accepts no client" : " does not answer the subscription") +
            "; waiting for it.");
  }

  void received(std::string record) override {
    const Lint judged = lint(asRead(record));
    if (!judged.notJson.empty()) {
      return notice("the server sent " + inQuotes(record.substr(0, 80)) +
                    ", which is not JSON and was ignored.");
    }
    if (!acknowledged_ && judged.replyStatus) {
      return acknowledge(*judged.replyStatus);
    }
    printer_.print(name(), asRead(record), judged.message);
  }

  void acknowledge(unsigned status) {
    patience_.disarm();
    acknowledged_ = true;
    troubled_ = false;
    if (status != 0) {
      throw Failure(Exit::kStatus, "the server " + inQuotes(name()) +
                                       " answered the subscription with status " +
                                       std::to_string(status) + ".");
    }
    notice("subscribed to " + inQuotes(name()) + ".");
    for (const std::string& text : options_.send) {
      send(sendable(text, "the message for --send"));
    }
  }

  void lost(int /*error*/) override {
    if (options_.noReconnect) {
      throw Failure(Exit::kLost, acknowledged_
                                     ? "the connection to " + inQuotes(name()) + " was lost."
                                     : std::string(lostFailure().what()));
    }
    trouble(acknowledged_ ? "the connection to " + inQuotes(name()) + " was lost; reconnecting."
                          : "the server " + inQuotes(name()) +
                                " closed the connection at once and may not admit this user; "
                                "trying on.");
  }

  void notConnected(int error) override {
    if (options_.noReconnect || error != ECONNREFUSED) {
      throw notConnectedFailure(error);
    }
    trouble("no server listens under " + inQuotes(name()) + " yet; waiting for it.");
  }

  /// Once for each time that things go wrong, not for each attempt.
  void trouble(const std::string& sentence) {
    patience_.disarm();
    if (!troubled_) {
      notice(sentence);
    }
    troubled_ = true;
  }

  const MonitorOptions& options_;
  Printer& printer_;
  Alarm patience_{[this] { mentionSilence(); }};
  bool acknowledged_ = false;
  bool troubled_ = false;
};

void monitor(const MonitorOptions& options) {
  for (const std::string& text : options.send) {
    sendable(text, "the message for --send");
  }
  Run run(Ending::kIsSuccess);
  Printer printer(options);
  std::list<Monitor> monitors;
  for (const std::string& name : options.names) {
    monitors.emplace_back(name, options, printer);
  }
  const double limit = common.timeLimit(0);
  run.within(
      limit, [&] { return printer.done(); },
      [&] {
        return "the " + secondsText(limit) +
               " of --timeout are over; leave it out to monitor without end.";
      });
}

}  // namespace

void addMonitor(CLI::App& program) {
  auto [verb, options] = addVerb(
      program, "monitor", "subscribes and prints what comes",
      "Subscribes and prints each message, one a line, with the server's name if there are "
      "several. After a loss it reconnects by itself, every second, and says so on standard error; "
      "what was sent in between is lost. There is no time-out unless one is given, for the whole "
      "run.",
      monitor);
  verb.alias("subscribe")
      .argument("NAME...", name(options.names))
      .option("--count", "N", number(options.count, 1, UINT64_MAX), "end after N messages")
      .flag("--no-reconnect", options.noReconnect, "end when the connection is lost")
      .option("--topic", "TOPIC", text(options.topics),
              "subscribe to this topic of a service (repeatable) instead of everything")
      .option("--send", "JSON", text(options.send),
              "send this message once subscribed (repeatable)")
      .option("--where", "KEY=VALUE", text(options.where),
              "only messages whose member KEY has that value (repeatable: all must hold); a.b is "
              "the member b of a")
      .flag("--timestamps", options.timestamps, "the time of arrival before each message");
}

}  // namespace tool
