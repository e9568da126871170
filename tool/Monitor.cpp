// monitor: connect -> switch on -> acknowledged -> messages; after a loss, from the start.

#include <cerrno>

#include "tool/Lines.h"
#include "tool/Output.h"
#include "tool/Run.h"
#include "tool/Session.h"
#include "tool/Verbs.h"

namespace tool {

namespace {

constexpr int kReconnectSeconds = 1;

/// One --where: the member, and the value as JSON and as plain text.
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
    const Lint judged = lint(value_);
    if (judged.notJson.empty()) {
      json_ = messageFrom(judged.compact);
    }
  }

  bool holds(const Tovik::Message& message) const {
    if (!message.IsObject()) {
      return false;
    }
    const auto member =
        message.FindMember(rapidjson::Value(rapidjson::StringRef(key_.data(), key_.size())));
    if (member == message.MemberEnd()) {
      return false;
    }
    const auto& found = member->value;
    const bool sameText =
        found.IsString() && value_ == std::string_view(found.GetString(), found.GetStringLength());
    return sameText || found == json_;
  }

 private:
  std::string key_;
  std::string value_;
  Tovik::Message json_{rapidjson::kObjectType};
};

class Monitor : private Session {
 public:
  Monitor(const Options& options, Run& run)
      : Session(options.name, options, kReconnectSeconds),
        options_(options),
        run_(run),
        output_(options),
        conditions_(options.where.begin(), options.where.end()),
        deadline_(timeLimit(options, 0), [&options] {
          return "the " + seconds(timeLimit(options, 0)) + " of --timeout are over; leave it out " +
                 "to monitor without end.";
        }) {
    deadline_.restart();
  }

 private:
  void connected() override {
    acknowledged_ = false;
    asyncSendMsg(messageFrom(R"({"command":"set","notification":true})"));
  }

  void received(std::string record) override {
    const Lint judged = lint(asRead(record));
    if (!judged.notJson.empty()) {
      return notice("the server sent " + inQuotes(record.substr(0, 80)) +
                    ", which is not JSON and was ignored; its maker should 'tovik check' it.");
    }
    if (!acknowledged_ && judged.replyStatus) {
      return acknowledge(*judged.replyStatus);
    }
    print(messageFrom(judged.compact));
  }

  void acknowledge(unsigned status) {
    acknowledged_ = true;
    troubled_ = false;
    if (status != 0) {
      throw Failure(Exit::kStatus, "the server " + inQuotes(name()) +
                                       " answered the subscription with status " +
                                       std::to_string(status) + "; ask its maker why.");
    }
    notice("subscribed to " + inQuotes(name()) + ".");
  }

  void print(const Tovik::Message& message) {
    for (const Condition& condition : conditions_) {
      if (!condition.holds(message)) {
        return;
      }
    }
    show(message);
    if (++printed_ == options_.count || output_.closed()) {
      run_.finish(Exit::kSuccess);
    }
  }

  void show(const Tovik::Message& message) {
    if (!options_.timestamps) {
      return output_.message(message);
    }
    if (!output_.json()) {
      return output_.message(message, painted(timestamp(), "2", output_.colour()) + " ");
    }
    Tovik::Message stamped;
    stamped.SetObject();
    addString(stamped, "time", timestamp());
    stamped.AddMember("message", rapidjson::Value(message, stamped.GetAllocator()),
                      stamped.GetAllocator());
    output_.message(stamped);
  }

  void lost(int /*error*/) override {
    if (options_.noReconnect) {
      throw Failure(Exit::kLost, acknowledged_
                                     ? "the connection to " + inQuotes(name()) +
                                           " was lost; without --no-reconnect it is made anew."
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
    if (!troubled_) {
      notice(sentence);
    }
    troubled_ = true;
  }

  const Options& options_;
  Run& run_;
  Output output_;
  const std::vector<Condition> conditions_;
  Deadline deadline_;
  std::uint64_t printed_ = 0;
  bool acknowledged_ = false;
  bool troubled_ = false;
};

}  // namespace

Exit runMonitor(const Options& options) {
  Run run(Ending::kIsSuccess);
  const Monitor monitor(options, run);
  return run.untilFinished();
}

}  // namespace tool
