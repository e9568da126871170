// A local server on the broker. connection -> description -> subscriptions -> retained values ->
// "online"; event -> publication; arrival -> checks -> call -> reply. What is retained is complete
// before "online" says true.

#include "mqtt/Export.h"

#include <mqtt_protocol.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "mqtt/Text.h"
#include "tool/Report.h"

namespace bridge {

using Tovik::find;
using Tovik::get;
using Tovik::Message;
using Tovik::object;
using Tovik::Outcome;
using Tovik::Refusal;

namespace {

constexpr int kMostCalls = 16;
constexpr std::uint32_t kLargestPacket = 65536;  // leaves room to refuse what is too long
constexpr std::size_t kRemembered = 4096;
constexpr std::size_t kLongestCaller = 1024;
constexpr std::size_t kLongestAbout = 262144;
constexpr Tovik::Proxy::Seconds kDescribeLimit(10);

bool startsWith(const std::string& text, const std::string& start) {
  return text.compare(0, start.size(), start) == 0;
}

/// Lists of all parts belong together; other members are those of the first one that has them.
void join(Message& whole, const rapidjson::Value& part) {
  auto& allocator = whole.GetAllocator();
  for (const auto& member : part.GetObject()) {
    const auto found = whole.FindMember(member.name);
    if (found == whole.MemberEnd()) {
      whole.AddMember(rapidjson::Value(member.name, allocator),
                      rapidjson::Value(member.value, allocator), allocator);
    } else if (found->value.IsArray() && member.value.IsArray()) {
      for (const auto& element : member.value.GetArray()) {
        found->value.PushBack(rapidjson::Value(element, allocator), allocator);
      }
    }
  }
}

/// The topics of a description, and whether they keep their last event.
std::map<std::string, bool> topicsIn(const Message& description) {
  std::map<std::string, bool> topics;
  for (const auto& topic :
       get<std::vector<Message>>(description, "topics").value_or(std::vector<Message>())) {
    if (const auto name = get<std::string>(topic, "name")) {
      topics[*name] = get<bool>(topic, "keepsLast").value_or(false);
    }
  }
  return topics;
}

Tovik::ProxyOptions proxyOptions() {
  Tovik::ProxyOptions options;
  options.reconnectInterval = 0.5;
  options.jitter = 0.25;
  return options;
}

}  // namespace

Export::Export(const Settings& settings, const std::string& name)
    : settings_(settings),
      name_(name),
      base_(settings.prefix + "/" + levelOf(name)),
      broker_(
          settings,
          {tool::inQuotes(name),
           "tovik-mqtt:" + base_,  // so another bridge with the same export is noticed
           {base_ + "/call/#"},
           MQTT_SUB_OPT_SEND_RETAIN_NEVER,  // a retained call would be repeated
           base_ + "/online",
           kLargestPacket},
          {[this] { announce(); }, [] {}, [this](const Arrival& arrival) { onArrival(arrival); },
           [](const Publication&, int) {}}),
      server_(name, proxyOptions()) {
  server_.onConnect([this] { describe(&Export::follow); });
  server_.onLoss([this](const std::string&) { disappear(); });
}

Message Export::counters() const {
  const auto& broker = broker_.counters();
  return object("name", name_, "remote", base_, "direction", "export", "there", isThere_, "broker",
                broker_.isUp(), "connected", broker.connected, "calls", calls_, "refused", refused_,
                "repeated", repeated_, "events", events_, "waiting", broker_.waiting(), "dropped",
                broker.dropped, "refusedByBroker", broker.refused);
}

// --- the server ---

/// `then` gets the description, or null for a server that has none.
void Export::describe(void (Export::*then)(Message)) {
  const auto whole = std::make_shared<Message>(object());
  const auto size = std::make_shared<std::size_t>(0);
  server_.call(object("command", "describe"), kDescribeLimit, [=](const Outcome& outcome) {
    const auto* part = outcome.result();
    if (part != nullptr && part->IsObject() && *size < kLongestAbout) {
      *size += textOf(*part).size();
      join(*whole, *part);
    }
    if (outcome.more || outcome.end == Outcome::kLost) {
      return;
    }
    if (*size >= kLongestAbout) {
      return say(tool::inQuotes(name_) + ": its description is too long, so it is not exported");
    }
    if (outcome.end == Outcome::kTimedOut) {
      say(tool::inQuotes(name_) + ": it does not answer, so it is not exported yet");
      return describe(then);
    }
    const bool describes = whole->HasMember("name") || whole->HasMember("commands") ||
                           whole->HasMember("topics");  // others answer everything alike
    (this->*then)(outcome && describes ? std::move(*whole) : Message());
  });
}

/// Asks for the description again afterwards: when that comes, all snapshots have come.
void Export::follow(Message description) {
  if (!description.IsObject()) {
    return followPlain();
  }
  notifications_.reset();
  const auto wanted = topicsIn(description);
  for (auto at = topics_.begin(); at != topics_.end();) {
    if (wanted.count(at->first) != 0) {
      ++at;
      continue;
    }
    server_.unsubscribe(at->first);
    forget(at->first);
    gone_.insert(at->first);
    at = topics_.erase(at);
  }
  for (const auto& [topic, keepsLast] : wanted) {
    const bool isNew = topics_.count(topic) == 0;
    gone_.erase(topic);
    topics_[topic].keepsLast = keepsLast;
    if (isNew) {
      server_.subscribe(topic,
                        [this, name = topic](const Message& event) { onEvent(name, event); });
    }
  }
  describe(&Export::appear);
}

/// Of a plain server, subscribers get no replies: they have a connection of their own.
void Export::followPlain() {
  if (notifications_ == nullptr) {
    notifications_ = std::make_unique<Tovik::Proxy>(name_, proxyOptions());
    notifications_->onConnect([this] {
      notifications_->call(object("command", "set", "notification", true), kDescribeLimit, {});
    });
    notifications_->onMessage([this](const Message& message) {
      ++events_;
      broker_.publish({base_ + "/event", textOf(message), false, true});
    });
  }
  appear(object("name", name_, "plain", true));
}

void Export::onEvent(const std::string& topic, const Message& event) {
  ++events_;
  Topic& state = topics_[topic];
  std::string payload = textWithout(event, {"type", "topic", "snapshot"});
  if (state.keepsLast) {
    state.last = payload;
    state.isCurrent = true;
  }
  broker_.publish({base_ + "/event/" + levelOf(topic), std::move(payload), state.keepsLast, true});
}

void Export::appear(Message description) {
  if (!description.IsObject()) {
    return;  // the server has changed its mind; the connection ends
  }
  for (auto& [topic, state] : topics_) {
    if (state.keepsLast && !state.isCurrent) {
      state.last.reset();
      forget(topic);
    }
  }
  about_ = textOf(description);
  isThere_ = true;
  publishState("about", about_);
  publishState("online", "true");
  say(tool::inQuotes(name_) + ": exported as " + tool::inQuotes(base_));
}

void Export::disappear() {
  for (auto& [topic, state] : topics_) {
    state.isCurrent = false;
  }
  if (std::exchange(isThere_, false)) {
    publishState("online", "false");
    say(tool::inQuotes(name_) + ": the server is away");
  }
}

// --- the broker ---

/// All that is retained, for a broker that may have forgotten it.
void Export::announce() {
  for (const auto& topic : gone_) {
    forget(topic);
  }
  for (const auto& [topic, state] : topics_) {
    if (state.last.has_value()) {
      broker_.publish({base_ + "/event/" + levelOf(topic), *state.last, true, true});
    } else if (isThere_ && state.keepsLast) {
      forget(topic);
    }
  }
  if (isThere_) {
    publishState("about", about_);
  } else {
    say(tool::inQuotes(name_) + ": the server is not here yet");
  }
  publishState("online", isThere_ ? "true" : "false");
}

/// Has the broker forget what it may have retained, also from an earlier bridge.
void Export::forget(const std::string& topic) {
  publishState("event/" + levelOf(topic), "");
}

void Export::publishState(const std::string& level, std::string payload) {
  broker_.publish({base_ + "/" + level, std::move(payload), true});
}

// --- calls ---

void Export::onArrival(const Arrival& call) {
  const std::string start = base_ + "/call/";
  const auto command = call.topic.size() > start.size()
                           ? nameOf(std::string_view(call.topic).substr(start.size()))
                           : std::string();
  const Caller caller{command.value_or(""), call.responseTopic, call.correlation};
  try {
    requireReplyable(caller);
  } catch (const Refusal& refusal) {
    return answer({caller.command, "", ""}, refusal.status(), refusal.what());
  }
  if (isRepeated(caller)) {
    ++repeated_;
    return;
  }
  try {
    if (!command.has_value()) {
      throw Refusal(EINVAL, "the topic's last level is no name of a command");
    }
    const Message request = requestOf(call, caller);
    ++calls_;
    ++inFlight_;
    server_.call(
        request,
        Tovik::Proxy::Seconds(call.expiry.value_or(0) > 0 ? *call.expiry : settings_.timeout),
        [this, caller](const Outcome& outcome) { answer(caller, outcome); });
  } catch (const Refusal& refusal) {
    answer(caller, refusal.status(), refusal.what());
  }
}

/// A publication may come twice. Without correlation data that cannot be told.
bool Export::isRepeated(const Caller& caller) {
  if (caller.correlation.empty()) {
    return false;
  }
  std::string key = caller.responseTopic + '\0' + caller.correlation;
  if (!seen_.insert(key).second) {
    return true;
  }
  seenInOrder_.push_back(std::move(key));
  if (seenInOrder_.size() > kRemembered) {
    seen_.erase(seenInOrder_.front());
    seenInOrder_.pop_front();
  }
  return false;
}

/// A reply is published with the bridge's rights: it must not pass for a call, an event or a state.
void Export::requireReplyable(const Caller& caller) const {
  const std::string& topic = caller.responseTopic;
  if (topic.size() + caller.correlation.size() > kLongestCaller) {
    throw Refusal(EMSGSIZE, "response topic and correlation data have at most " +
                                std::to_string(kLongestCaller) + " bytes");
  }
  if (!topic.empty() && (mosquitto_pub_topic_check(topic.c_str()) != MOSQ_ERR_SUCCESS ||
                         topic.front() == '$' || startsWith(topic, settings_.prefix + "/"))) {
    throw Refusal(EACCES, "replies are not published to " + tool::inQuotes(topic));
  }
}

Message Export::requestOf(const Arrival& call, const Caller& caller) const {
  if (!caller.responseTopic.empty() && caller.correlation.empty()) {
    throw Refusal(EINVAL, "a call with a response topic has correlation data");
  }
  Message request;
  parse(request, call.payload.empty() ? "{}" : call.payload);
  if (!caller.command.empty()) {
    if (request.HasMember("command")) {
      throw Refusal(EINVAL, "the command stands in the topic, not in the payload");
    }
    request.AddMember("command", rapidjson::Value(caller.command.c_str(), request.GetAllocator()),
                      request.GetAllocator());
  }
  requireAllowed(request);
  if (!isThere_) {
    throw Refusal(ECONNREFUSED, name_ + ": the server is away");
  }
  if (inFlight_ >= kMostCalls) {
    throw Refusal(EBUSY, "too many calls in flight");
  }
  return request;
}

/// The bridge has one connection to the server, so its subscriptions are not for callers to change.
void Export::requireAllowed(const Message& request) const {
  const auto* member = find(request, "command");
  if (member != nullptr && !member->IsString()) {
    throw Refusal(EINVAL, "a command is a text");
  }
  const std::string command = get<std::string>(request, "command").value_or("");
  if (command == "subscribe" || command == "unsubscribe" ||
      (command == "set" && request.HasMember("notification"))) {
    throw Refusal(EACCES, "subscribe to the topics below " + base_ + "/event instead");
  }
  const auto allowed = settings_.allowed.find(name_);
  if (allowed != settings_.allowed.end() && allowed->second.count(command) == 0) {
    throw Refusal(EACCES, "this command is not allowed from elsewhere");
  }
}

void Export::answer(const Caller& caller, const Outcome& outcome) {
  inFlight_ -= outcome.more ? 0 : 1;
  if (outcome.end != Outcome::kReply) {
    return send(caller,
                textOf(object("type", "reply", "status", outcome.status, "error", outcome.error)));
  }
  if (caller.responseTopic.empty() && !outcome.more) {
    say(tool::inQuotes(name_) + ": " + tool::inQuotes(caller.command) +
        " without a response topic: " +
        (outcome
             ? "status 0"
             : "status " + std::to_string(outcome.status) + ": " + tool::escaped(outcome.error)));
  }
  send(caller, textWithout(outcome.reply, {"id"}));
}

void Export::answer(const Caller& caller, unsigned status, const std::string& error) {
  ++refused_;
  say(tool::inQuotes(name_) + ": " + tool::inQuotes(caller.command) +
      " is refused: " + tool::escaped(error));
  send(caller, textOf(object("type", "reply", "status", status, "error", error)));
}

void Export::send(const Caller& caller, std::string reply) {
  if (!caller.responseTopic.empty()) {
    broker_.publish({caller.responseTopic, std::move(reply), false, false, "", caller.correlation});
  }
}

}  // namespace bridge
