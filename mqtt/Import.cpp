// A server of elsewhere, here. values, description, "online" -> local service; request ->
// publication -> reply; event -> local event; "false", or the broker's loss -> all calls end, the
// name closes.

#include "mqtt/Import.h"

#include <mqtt_protocol.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstring>
#include <random>
#include <utility>

#include "Api/Admission.h"
#include "Kelvo/Exception.h"
#include "mqtt/Text.h"
#include "tool/Report.h"

namespace bridge {

using Tovik::get;
using Tovik::Message;
using Tovik::object;
using Tovik::Refusal;
using Tovik::Request;

namespace {

constexpr std::uint32_t kLargestPacket = 524288;  // a description may be long
constexpr std::size_t kLongestAbout = 262144;
constexpr std::size_t kMostCalls = 1000;
constexpr std::size_t kMostValues = 6000;  // more topics than the longest description has
constexpr double kOpenAgain = 5;           // seconds
constexpr std::uint64_t kLargestStatus = 2147483647;

double now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

std::string randomText() {
  std::random_device device;
  static const char digits[] = "0123456789abcdef";
  std::string text;
  for (int i = 0; i < 16; ++i) {
    text += digits[device() & 15U];
  }
  return text;
}

/// One of those that arguments can have; it is only shown.
const char* typeNamed(const std::string& name) {
  for (const char* type : {"boolean", "integer", "number", "string", "array", "object"}) {
    if (name == type) {
      return type;
    }
  }
  return "any";
}

/// The objects in a list of a description that have a name.
std::vector<Message> named(const rapidjson::Value& about, const char* list) {
  auto all = get<std::vector<Message>>(about, list).value_or(std::vector<Message>());
  all.erase(
      std::remove_if(all.begin(), all.end(),
                     [](const Message& one) { return !get<std::string>(one, "name").has_value(); }),
      all.end());
  return all;
}

std::string textIn(const rapidjson::Value& object, const char* name) {
  return get<std::string>(object, name).value_or("");
}

Tovik::Service::Admission admissionOf(const Settings& settings) {
  using namespace Tovik::Admission;
  return root() || sameUser() || users({settings.users.begin(), settings.users.end()}) ||
         groups({settings.groups.begin(), settings.groups.end()});
}

}  // namespace

Import::Import(const Settings& settings, Settings::Imported imported)
    : settings_(settings),
      imported_(std::move(imported)),
      run_(randomText()),
      replies_("tovik/reply/tovik-mqtt:" + run_),
      broker_(
          settings,
          {tool::inQuotes(imported_.name),
           "tovik-mqtt:" + run_,
           // What is retained comes in this order: so values are here before "online".
           {replies_, imported_.remote + "/event/#", imported_.remote + "/about",
            imported_.remote + "/online"},
           MQTT_SUB_OPT_SEND_RETAIN_ALWAYS,
           "",
           kLargestPacket},
          {[] {}, [this] { update(); }, [this](const Arrival& arrival) { onArrival(arrival); },
           [this](const Publication& publication, int reason) { onRefused(publication, reason); }}),
      limit_([this] { expire(); }),
      retry_([this] { update(); }) {}

Message Import::counters() const {
  const auto& broker = broker_.counters();
  return object("name", imported_.name, "remote", imported_.remote, "direction", "import", "there",
                service_ != nullptr, "broker", broker_.isUp(), "connected", broker.connected,
                "opened", opened_, "calls", lastCall_, "inFlight", calls_.size(), "refused",
                refused_, "timedOut", timedOut_, "lost", lost_, "events", events_, "sessions",
                service_ == nullptr ? 0 : service_->sessions(), "dropped", broker.dropped,
                "refusedByBroker", broker.refused);
}

// --- the remote server ---

void Import::onArrival(const Arrival& arrival) {
  if (arrival.topic == replies_) {
    onReply(arrival);
  } else if (arrival.topic == imported_.remote + "/online") {
    isOnline_ = arrival.payload == "true";
    if (!isOnline_ && service_ == nullptr) {
      say(tool::inQuotes(imported_.name) + ": the remote server is away");
    }
    update();
  } else if (arrival.topic == imported_.remote + "/about") {
    about_ = arrival.payload;
    update();
  } else {
    onEvent(arrival);
  }
}

/// The name is open exactly while the remote server is there.
void Import::update() {
  if (!broker_.isUp()) {
    isOnline_ = false;
    about_.clear();
  }
  if (service_ != nullptr && (!isOnline_ || about_ != served_)) {
    close(broker_.isUp() ? "the remote server is away" : "the broker is away");
  }
  if (service_ == nullptr && isOnline_ && !about_.empty()) {
    open();
  }
}

void Import::open() {
  try {
    Message about;
    parse(about, about_, kLongestAbout);
    service_ =
        std::make_unique<Tovik::Service>(imported_.name, admissionOf(settings_),
                                         Tovik::ServiceOptions{textIn(about, "description")});
    addCommands(about);
    addTopics(about);
  } catch (const Refusal& refusal) {
    return say(tool::inQuotes(imported_.name) + ": its description is refused: " + refusal.what());
  } catch (const Kelvo::Exception& error) {
    service_.reset();
    retry_.arm(kOpenAgain);
    return say(tool::inQuotes(imported_.name) + ": cannot be opened: " + error.what());
  }
  served_ = about_;
  ++opened_;
  say(tool::inQuotes(imported_.name) + ": open, for " + tool::inQuotes(imported_.remote));
}

/// The remote server judges arguments; here they are only described.
void Import::addCommands(const Message& about) {
  const auto handler = [this](const Request& request) { call(request); };
  if (get<bool>(about, "plain") == true) {
    return service_->otherwise(handler);
  }
  for (const auto& command : named(about, "commands")) {
    std::vector<Tovik::Argument> arguments;
    for (const auto& argument : named(command, "arguments")) {
      arguments.push_back({textIn(argument, "name"), textIn(argument, "description"),
                           typeNamed(textIn(argument, "type")),
                           get<bool>(argument, "required").value_or(false),
                           [](const rapidjson::Value&) { return true; }});
    }
    service_->command(textIn(command, "name"), textIn(command, "description"), arguments, handler);
  }
}

void Import::addTopics(const Message& about) {
  for (const auto& topic : named(about, "topics")) {
    const std::string name = textIn(topic, "name");
    const bool keepsLast = get<bool>(topic, "keepsLast").value_or(false);
    service_->topic(name, {textIn(topic, "description"),
                           keepsLast ? Tovik::Topic::kKeepLast : Tovik::Topic::kKeepNothing});
    const auto value = values_.find(name);
    if (keepsLast && value != values_.end()) {
      Message event;
      event.Parse(value->second.c_str());
      service_->publish(name, event);
    }
  }
  values_.clear();
}

void Import::onEvent(const Arrival& arrival) {
  const std::size_t start = imported_.remote.size() + std::strlen("/event/");
  const bool hasTopic = arrival.topic.size() >= start;
  const auto topic = hasTopic ? nameOf(arrival.topic.substr(start)) : std::string();
  if (hasTopic && arrival.payload.empty() && topic.has_value()) {
    values_.erase(*topic);  // it is retained no longer
    return;
  }
  try {
    Message event;
    parse(event, arrival.payload);
    if (!topic.has_value()) {
      throw Refusal(EINVAL, "its topic is no name");
    }
    if (service_ == nullptr) {
      if (values_.size() < kMostValues) {
        values_[*topic] = arrival.payload;
      }
      return;
    }
    const int status = hasTopic ? service_->publish(*topic, event) : service_->notify(event);
    if (status != 0) {
      throw Refusal(static_cast<unsigned>(status), std::strerror(status));
    }
    ++events_;
  } catch (const Refusal& refusal) {
    ++refused_;
    say(tool::inQuotes(imported_.name) + ": an event at " + tool::inQuotes(arrival.topic) +
        " is refused: " + refusal.what());
  }
}

void Import::close(const std::string& reason) {
  const auto calls = std::exchange(calls_, {});
  for (const auto& [number, call] : calls) {
    ++lost_;
    Request(call.request).fail(ECANCELED, reason);
  }
  limit_.disarm();
  service_.reset();
  say(tool::inQuotes(imported_.name) + ": closed: " + reason);
}

// --- calls ---

void Import::call(const Request& request) {
  if (calls_.size() >= kMostCalls) {
    throw Refusal(EBUSY, "too many calls in flight");
  }
  const std::uint64_t number = ++lastCall_;
  calls_.emplace(number, Call{request, now() + settings_.timeout});
  if (calls_.size() == 1) {
    limit_.arm(settings_.timeout);
  }
  const std::string command = request.command();
  const std::string topic =
      imported_.remote + "/call" + (command.empty() ? "" : "/" + levelOf(command));
  std::string payload = command.empty() ? textWithout(request.message(), {"id"})
                                        : textWithout(request.message(), {"id", "command"});
  broker_.publish({topic, std::move(payload), false, false, replies_,
                   run_ + "-" + std::to_string(number),
                   static_cast<std::uint32_t>(std::ceil(settings_.timeout))});
}

std::map<std::uint64_t, Import::Call>::iterator Import::callOf(const std::string& correlation) {
  if (correlation.compare(0, run_.size() + 1, run_ + "-") != 0) {
    return calls_.end();
  }
  std::uint64_t number = 0;
  const char* const end = correlation.data() + correlation.size();
  const auto [stop, error] = std::from_chars(correlation.data() + run_.size() + 1, end, number);
  return error == std::errc() && stop == end ? calls_.find(number) : calls_.end();
}

void Import::onReply(const Arrival& arrival) {
  const auto found = callOf(arrival.correlation);
  if (found == calls_.end()) {
    return;  // late, or twice
  }
  Request request = found->second.request;
  try {
    Message reply;
    parse(reply, arrival.payload);
    const auto status = get<std::uint64_t>(reply, "status");
    if (!status.has_value() || *status > kLargestStatus) {
      throw Refusal(EINVAL, "a reply has a status");
    }
    const bool more = get<bool>(reply, "more").value_or(false);
    if (!more) {
      calls_.erase(found);
    }
    const auto* result = Tovik::find(reply, "result");
    if (*status != 0) {
      request.fail(static_cast<unsigned>(*status), textIn(reply, "error"));
    } else if (more) {
      result == nullptr ? request.more(nullptr) : request.more(*result);
    } else {
      result == nullptr ? request.reply() : request.reply(*result);
    }
  } catch (const Refusal& refusal) {
    say(tool::inQuotes(imported_.name) + ": a reply is refused: " + refusal.what());
    calls_.erase(found);
    request.fail(EPROTO, "the remote side's reply is not understood");
  }
}

void Import::onRefused(const Publication& publication, int reason) {
  const auto found = callOf(publication.correlation);
  if (found == calls_.end()) {
    return;
  }
  Request request = found->second.request;
  calls_.erase(found);
  if (reason == MQTT_RC_NO_MATCHING_SUBSCRIBERS) {
    ++lost_;
    request.fail(ECANCELED, "no bridge takes calls of " + imported_.remote);
    return;
  }
  ++refused_;
  request.fail(reason == MQTT_RC_NOT_AUTHORIZED ? EACCES : EIO,
               std::string("the broker refuses the call: ") + mosquitto_reason_string(reason));
}

/// All calls have the same limit, so the first one is the next to expire.
void Import::expire() {
  while (!calls_.empty() && calls_.begin()->second.deadline <= now()) {
    Request request = calls_.begin()->second.request;
    calls_.erase(calls_.begin());
    ++timedOut_;
    request.fail(ETIMEDOUT, "no reply within " + tool::secondsText(settings_.timeout));
  }
  if (!calls_.empty()) {
    limit_.arm(calls_.begin()->second.deadline - now());
  }
}

}  // namespace bridge
