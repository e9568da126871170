// One client's requests: record -> message -> shape -> the convention's own commands, or a handler
// -> answer. Nothing of a record is looked up before its type is known.

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "Api/Service/detail/Convention.h"
#include "Api/Service/detail/ServiceCore.h"

namespace Tovik {

namespace {

/// The name in quotes if it can be shown, for an error's text.
std::string shown(std::string_view name) {
  const bool printable = name.size() <= 64 && std::all_of(name.begin(), name.end(), [](char c) {
                           return c >= ' ' && c <= '~';
                         });
  return printable ? " '" + std::string(name) + "'" : " of that name";
}

/// What is wrong with the arguments; empty if nothing is.
std::string complaint(const Command& command, const Message& message) {
  for (const auto& argument : command.arguments) {
    const auto* value = find(message, argument.name);
    if (value == nullptr ? argument.isRequired : !argument.accepts(*value)) {
      return "argument '" + argument.name + "' " +
             (value == nullptr ? "is missing" : "is no valid " + std::string(argument.type));
    }
  }
  return {};
}

}  // namespace

Session::Session(std::uint64_t number, int pid, unsigned uid, unsigned gid)
    : number_(number), pid_(pid), uid_(uid), gid_(gid) {}

Session::~Session() = default;

ServedSession::ServedSession(Service::Core& core, std::uint64_t number, const ucred& peer)
    : Session(number, peer.pid, peer.uid, peer.gid),
      Link({core.options.queuedRecords, core.options.queuedBytes}),
      core_(&core) {}

// --- in ---

void ServedSession::onRecord(const char* text) {
  const auto self = shared_from_this();  // handlers may destroy the service
  const auto call = std::make_shared<Request::Call>(core_->home);
  Convention::parse(call->message, text);
  if (takeIn(*call)) {
    call->session = self;
    dispatch(call);
  }
}

void ServedSession::onTooLong(std::size_t size) {
  Request::Call call(core_->home);
  if (takeIn(call)) {
    call.session = weak_from_this();
    call.answer(EMSGSIZE, nullptr, "a record has at most 4094 bytes, not " + std::to_string(size),
                false);
  }
}

/// Gives the call its place: its id, or its turn among those without. False if the client has more
/// answers to come than it may.
bool ServedSession::takeIn(Request::Call& call) {
  const auto* id = find(call.message, "id");
  if (id != nullptr && id->IsUint64() && id->GetUint64() <= Convention::kLargestId) {
    call.id = id->GetUint64();
    return true;
  }
  if (turns_.size() >= 2 * core_->options.callsPerSession + 1) {
    call.isAnswered = true;
    shutDown("it does not wait for its answers");
    return false;
  }
  call.turn = turns_.emplace(turns_.end());
  return true;
}

void ServedSession::dispatch(const std::shared_ptr<Request::Call>& call) {
  const Message& message = call->message;
  if (!message.IsObject()) {
    return refuse(*call, EINVAL, "a request is a JSON object");
  }
  if (!call->id.has_value() && message.HasMember("id")) {
    return refuse(*call, EINVAL, "an id is an integer from 0 to 9007199254740991");
  }
  if (call->id.has_value() && ids_.count(*call->id) != 0) {
    return refuse(*call, EINVAL, "this id is in use by a call in flight");
  }
  if (isSwitch(message)) {
    return applySwitch(*call);
  }
  const auto name = Convention::textMember(message, "command");
  if (name == "subscribe" || name == "unsubscribe") {
    return changeSubscriptions(*call, name == "subscribe");
  }
  if (name == "describe") {
    return core_->describe(Request(call));
  }
  const auto command = core_->commandFor(name);  // a share: the handler may destroy the service
  if (command == nullptr) {
    return name.has_value() ? refuse(*call, ENOSYS, "no command" + shown(*name))
                            : refuse(*call, EINVAL, "a request has a command, which is a text");
  }
  const auto wrong = complaint(*command, message);
  if (!wrong.empty()) {
    return refuse(*call, EINVAL, wrong);
  }
  if (isBusyFor(*call)) {
    return refuse(*call, EBUSY, "too many calls in flight");
  }
  run(command, call);
}

void ServedSession::refuse(Request::Call& call, int status, const std::string& why) const {
  TOVIK_SERVICE_LOG(1, "session " << number() << ", pid " << pid() << ": refused: " << why);
  call.answer(static_cast<unsigned>(status), nullptr, why, false);
}

bool ServedSession::isBusyFor(const Request::Call& call) const {
  const std::size_t others = ids_.size() + turns_.size() - (call.id.has_value() ? 0 : 1);
  return others >= core_->options.callsPerSession;
}

void ServedSession::run(const std::shared_ptr<const Command>& command,
                        const std::shared_ptr<Request::Call>& call) {
  if (call->id.has_value()) {
    call->isInFlight = ids_.insert(*call->id).second;
  }
  try {
    command->handler(Request(call));
  } catch (const Refusal& refusal) {
    call->answer(refusal.status(), nullptr, refusal.what(), false);
  }
}

void ServedSession::onEnd(const std::string& reason) {
  TOVIK_SERVICE_LOG(2, "session " << number() << ", pid " << pid() << ": " << reason);
  if (core_ != nullptr) {
    core_->leave(*this);  // which destroys this, as a rule
  }
}

// --- subscriptions ---

/// As the core has it: an object with "command" = "set" and any "notification".
bool ServedSession::isSwitch(const Message& message) const {
  return Convention::textMember(message, "command") == "set" && message.HasMember("notification");
}

void ServedSession::applySwitch(Request::Call& call) {
  const auto on = get<bool>(call.message, "notification");
  if (!on.has_value() && call.id.has_value()) {
    call.answer(EINVAL, nullptr, "argument 'notification' is no boolean", false);
    return;
  }
  if (!on.has_value()) {  // no reply and no change, as the core has it
    call.isAnswered = true;
    return sendReply(call, {});
  }
  call.answer(0, nullptr, {}, false);  // before the change: a client that gets all, gets no reply
  followsAll_ = *on;
  if (followsAll_) {
    core_->followAll.insert(this);
  } else {
    core_->followAll.erase(this);
  }
}

void ServedSession::changeSubscriptions(Request::Call& call, bool subscribe) {
  const auto topics = get<std::vector<std::string>>(call.message, "topics");
  std::vector<Feed*> feeds;
  if (!topics.has_value()) {
    call.answer(EINVAL, nullptr, "argument 'topics' is missing or no array of texts", false);
    return;
  }
  for (const auto& topic : *topics) {
    const auto found = core_->feeds.find(topic);
    if (found == core_->feeds.end()) {
      call.answer(EINVAL, nullptr, "no topic" + shown(topic), false);
      return;
    }
    if (std::find(feeds.begin(), feeds.end(), &found->second) == feeds.end()) {
      feeds.push_back(&found->second);
    }
  }
  if (feeds.empty()) {
    for (auto& [topic, feed] : core_->feeds) {
      feeds.push_back(&feed);
    }
  }
  call.answer(0, nullptr, {}, false);
  for (Feed* feed : feeds) {
    if (subscribe) {
      follow(*feed);
    } else {
      feed->followers.erase(this);
    }
  }
}

void ServedSession::follow(Feed& feed) {
  feed.followers.insert(this);
  if (feed.last.has_value()) {
    deliver(feed, std::make_shared<const std::string>(
                      Convention::joined(feed.head + R"(,"snapshot":true)", *feed.last)));
  }
}

// --- out ---

void ServedSession::deliver(const Feed& feed, const Link::Text& text) {
  if (feed.topic.backlog == Topic::kQueueLatest && queuedRecords() != 0) {
    unqueue(&feed);
  }
  push(text, &feed);
}

void ServedSession::push(Link::Text text, const Feed* feed) {
  if (hasRoom(text->size())) {
    return send(std::move(text), feed);
  }
  TOVIK_SERVICE_LOG(1, "session " << number() << ", pid " << pid() << ": it does not read");
  shutDown("its queue is full");
}

/// A call without an id is answered in its turn, and not at all while the client gets all events.
void ServedSession::sendReply(const Request::Call& call, std::string text) {
  if (call.id.has_value()) {
    return push(std::make_shared<const std::string>(std::move(text)));
  }
  *call.turn = followsAll_ ? std::string() : std::move(text);
  flushTurns();
}

void ServedSession::flushTurns() {
  while (!turns_.empty() && turns_.front().has_value()) {
    const std::string text = *std::move(turns_.front());
    turns_.pop_front();
    if (!text.empty()) {
      push(std::make_shared<const std::string>(text));
    }
  }
}

}  // namespace Tovik
