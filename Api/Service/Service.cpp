// A service. client -> judged -> session; record -> message -> shape -> the convention's own
// commands, or a handler -> answer -> record; event -> text -> every follower; description -> parts
// that fit into records. Nothing of a record is looked up before its type is known.
//
// The core owns the sessions; a session knows its core until that goes; a call knows its session
// while that lives.

#include "Api/Service/Service.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <unordered_set>
#include <utility>
#include <vector>

#include "Api/Json/Server.h"
#include "Api/Service/detail/Convention.h"
#include "Api/Service/detail/Link.h"
#include "Kelvo/Exception.h"
#include "Kelvo/Platform/EventLoop.h"

namespace Tovik {

namespace {

constexpr std::size_t kSnapshotMark = std::string_view(R"("snapshot":true,)").size();
constexpr std::size_t kLongestPart = 3900;  // leaves room for what stands around it in a reply
constexpr std::size_t kAroundEntry = std::string_view(R"("commands":[],)").size();

/// For "describe"; throws if it would not fit into a record.
std::string described(const Message& description, const std::string& what) {
  auto text = Convention::textOf(description);
  if (!text.has_value() || text->size() > kLongestPart) {
    throw Kelvo::Exception("the description of " + what + " does not fit into a record", false);
  }
  return *std::move(text);
}

void requireNew(bool isNew, const std::string& what) {
  if (!isNew) {
    throw Kelvo::Exception(what + " is taken", false);
  }
}

/// The name in quotes if it can be shown, for an error's text.
std::string shown(std::string_view name) {
  const bool printable = name.size() <= 64 && std::all_of(name.begin(), name.end(), [](char c) {
                           return c >= ' ' && c <= '~';
                         });
  return printable ? " '" + std::string(name) + "'" : " of that name";
}

/// As much of a text, in whole characters, as a record holds whatever they are.
std::string_view shortened(std::string_view text) {
  constexpr std::size_t kLongest = 500;  // bytes, each of which may take six
  auto size = std::min(text.size(), kLongest);
  while (0 < size && size < text.size() && (text[size] & 0xC0) == 0x80) {
    --size;
  }
  return text.substr(0, size);
}

}  // namespace

class TOVIK_INTERNAL ServedSession;

/// A topic, and who follows it.
struct TOVIK_INTERNAL Feed {
  Topic topic;
  std::string head;       // what its events begin with, the brace not closed
  std::string described;  // for "describe"
  std::optional<std::string> last;
  std::unordered_set<ServedSession*> followers;
};

struct Command {
  /// Throws if something is wrong with the arguments.
  void check(const Message& message) const {
    for (const auto& [name, description, type, isRequired, accepts] : arguments) {
      const auto* value = find(message, name);
      if (value == nullptr && isRequired) {
        throw Refusal(EINVAL, "argument '" + name + "' is missing");
      }
      if (value != nullptr && !accepts(*value)) {
        throw Refusal(EINVAL, "argument '" + name + "' is no valid " + type);
      }
    }
  }

  std::vector<Argument> arguments;
  Service::Handler handler;
  std::string described;  // for "describe"
};

/// One call, until it has been answered.
struct Request::Call {
  /// Ends a call when its last copy goes: one without an answer gets one, on the service's thread.
  struct End {
    void operator()(Call* call) const {
      std::unique_ptr<Call> last(call);
      if (last->isAnswered) {
        return;
      }
      Request request{std::shared_ptr<Call>(std::move(last))};
      auto fail = [request]() mutable { request.fail(EIO, "the service has not answered"); };
      if (std::this_thread::get_id() == thread) {
        fail();
      } else {
        loop.post(fail);
      }
    }

    const std::thread::id thread = std::this_thread::get_id();
    const Kelvo::Platform::EventLoop::Remote loop = Kelvo::Platform::EventLoop::current().remote();
  };
  /// The calls of a session that are not answered yet, by id. Those without one come behind all
  /// others and are answered in their order: what is answered out of turn waits here for those
  /// before it. An empty text is an answer that is not sent.
  using Pending = std::multimap<std::uint64_t, std::optional<std::string>>;
  static constexpr std::uint64_t kNoId = std::uint64_t{1} << 53;

  // A record's values take little room; the default would be 64 KiB for each call.
  rapidjson::MemoryPoolAllocator<> pool{512};
  Message message{&pool};
  std::weak_ptr<ServedSession> session;
  Pending::iterator place;  // as long as its session is there
  bool isAnswered = false;
};

/// Admits clients: each is judged and closed, or becomes a session.
struct Service::Core final : Server {
  Core(const std::string& serviceName, Admission admission, ServiceOptions serviceOptions)
      : Server((Convention::addressOf(serviceName), serviceName), {},
               [this, admission = std::move(admission)](int pid, unsigned uid, unsigned gid) {
                 judged = {pid, uid, gid};
                 return admission(pid, uid, gid);
               }),
        name(serviceName),
        options(std::move(serviceOptions)),
        itself(described(object("name", name, "description", options.description), "the service")) {
  }
  ~Core() override;

  void readFdEvent(int fd) override;
  void leave(ServedSession& session);
  void describe(Request& request) const;
  int send(Feed& feed, const Message& message);

  const std::string name;
  const ServiceOptions options;
  const Request::Call::End endOfCalls;
  const std::string itself;  // for "describe"
  std::map<std::string, std::shared_ptr<const Command>, std::less<>> commands;
  std::shared_ptr<const Command> otherwise;  // or null
  std::map<std::string, Feed, std::less<>> feeds;
  Feed all;  // what the core's notification switch is for: all events, and more
  SessionHandler onJoin, onLeave;
  std::unordered_set<std::shared_ptr<ServedSession>> sessions;
  std::uint64_t lastNumber = 0;
  ucred judged{};  // the client whose admission was asked about last
};

class ServedSession final : public Session,
                            public Link,
                            public std::enable_shared_from_this<ServedSession> {
 public:
  ServedSession(Service::Core& core, std::uint64_t number, const ucred& peer)
      : Session(number, peer.pid, peer.uid, peer.gid),
        Link(core.options.queuedRecords, core.options.queuedBytes),
        core_(&core) {}

  std::size_t queuedRecords() const noexcept override { return Link::queuedRecords(); }
  std::size_t queuedBytes() const noexcept override { return Link::queuedBytes(); }
  void close() override { shutDown("closed by the service"); }

  /// The service has gone.
  void orphan() {
    core_ = nullptr;
    drop();
  }

  /// Also given all events, by the core's notification switch.
  bool followsAll() const noexcept { return followsAll_; }

  /// Sends an answer or, of a feed, an event; or ends the session if its queue is full.
  void push(const std::string& text, const Feed* feed = nullptr) {
    if (feed != nullptr && feed->topic.backlog == Topic::kQueueLatest) {
      unqueue(feed);
    }
    if (hasRoom(text.size())) {
      return send(text, feed);
    }
    TOVIK_SERVICE_LOG(1, "session " << number() << ", pid " << pid() << ": it does not read");
    shutDown("its queue is full");
  }

  /// A call's answer, the last one unless more follow.
  void reply(Request::Call::Pending::iterator place, std::string text, bool more) {
    if (place->first != kNoId) {
      if (!more) {
        pending_.erase(place);
      }
      return push(text);
    }
    place->second = followsAll_ ? std::string() : std::move(text);  // as the core has it
    for (auto first = pending_.lower_bound(kNoId); first != pending_.end() && first->second;
         first = pending_.lower_bound(kNoId)) {
      const std::string next = *std::move(first->second);
      pending_.erase(first);
      if (!next.empty()) {
        push(next);
      }
    }
  }

 private:
  static constexpr auto kNoId = Request::Call::kNoId;

  void onRecord(const char* text, std::size_t size) override {
    const auto self = shared_from_this();  // handlers may destroy the service
    const std::shared_ptr<Request::Call> call(new Request::Call, core_->endOfCalls);
    if (size <= Convention::kLongestRecord) {
      Convention::parse(call->message, text);
    }
    const auto id = std::min(get<std::uint64_t>(call->message, "id").value_or(kNoId), kNoId);
    if (id == kNoId && pending_.count(kNoId) > 2 * core_->options.callsPerSession) {
      call->isAnswered = true;
      return shutDown("it does not wait for its answers");
    }
    call->place = pending_.emplace(id, std::nullopt);
    call->session = self;
    Request request(call);
    try {
      if (size > Convention::kLongestRecord) {
        throw Refusal(EMSGSIZE, "a record has at most 4094 bytes, not " + std::to_string(size));
      }
      carryOut(request, *call);
    } catch (const Refusal& refusal) {
      TOVIK_SERVICE_LOG(
          1, "session " << number() << ", pid " << pid() << ": refused: " << refusal.what());
      request.fail(refusal.status(), refusal.what());
    }
  }

  void carryOut(Request& request, Request::Call& call) {
    const Message& message = call.message;
    if (!message.IsObject()) {
      throw Refusal(EINVAL, "a request is a JSON object");
    }
    if (call.place->first == kNoId && message.HasMember("id")) {
      throw Refusal(EINVAL, "an id is an integer from 0 to 9007199254740991");
    }
    if (call.place->first != kNoId && pending_.count(call.place->first) > 1) {
      throw Refusal(EINVAL, "this id is in use by a call in flight");
    }
    const auto name = get<std::string>(message, "command");
    if (name == "set" && message.HasMember("notification")) {
      return applySwitch(request, call);
    }
    if (name == "subscribe" || name == "unsubscribe") {
      return changeSubscriptions(request, name == "subscribe");
    }
    if (name == "describe") {
      return core_->describe(request);
    }
    const auto found = name.has_value() ? core_->commands.find(*name) : core_->commands.end();
    const auto command =  // a share, since the handler may destroy the service
        found == core_->commands.end() ? core_->otherwise : found->second;
    if (command == nullptr && name.has_value()) {
      throw Refusal(ENOSYS, "no command" + shown(*name));
    }
    if (command == nullptr) {
      throw Refusal(EINVAL, "a request has a command, which is a text");
    }
    command->check(message);
    if (pending_.size() > core_->options.callsPerSession) {
      throw Refusal(EBUSY, "too many calls in flight");
    }
    command->handler(request);
  }

  /// As the core has it: "command" = "set" with a boolean "notification".
  void applySwitch(Request& request, Request::Call& call) {
    const auto on = get<bool>(call.message, "notification");
    if (!on.has_value() &&
        call.place->first == kNoId) {  // no reply and no change, as the core has it
      call.isAnswered = true;
      return reply(call.place, {}, false);
    }
    if (!on.has_value()) {
      throw Refusal(EINVAL, "argument 'notification' is no boolean");
    }
    request.reply();  // before the change: a client that gets all, gets no reply
    followsAll_ = *on;
    if (followsAll_) {
      core_->all.followers.insert(this);
    } else {
      core_->all.followers.erase(this);
    }
  }

  void changeSubscriptions(Request& request, bool subscribe) {
    const auto topics = get<std::vector<std::string>>(request.message(), "topics");
    if (!topics.has_value()) {
      throw Refusal(EINVAL, "argument 'topics' is missing or no array of texts");
    }
    std::vector<Feed*> feeds;
    for (const auto& topic : *topics) {
      const auto found = core_->feeds.find(topic);
      if (found == core_->feeds.end()) {
        throw Refusal(EINVAL, "no topic" + shown(topic));
      }
      if (std::find(feeds.begin(), feeds.end(), &found->second) == feeds.end()) {
        feeds.push_back(&found->second);
      }
    }
    for (auto& [topic, feed] : core_->feeds) {
      if (topics->empty()) {
        feeds.push_back(&feed);
      }
    }
    request.reply();
    for (Feed* feed : feeds) {
      if (!subscribe) {
        feed->followers.erase(this);
        continue;
      }
      feed->followers.insert(this);
      if (feed->last.has_value()) {
        push(Convention::joined(feed->head + R"(,"snapshot":true)", *feed->last), feed);
      }
    }
  }

  void onEnd(const std::string& reason) override {
    TOVIK_SERVICE_LOG(2, "session " << number() << ", pid " << pid() << ": " << reason);
    if (core_ != nullptr) {
      core_->leave(*this);  // which destroys this, as a rule
    }
  }

  Service::Core* core_;
  bool followsAll_ = false;
  Request::Call::Pending pending_;
};

// --- the core ---

Service::Core::~Core() {
  for (const auto& session : sessions) {
    session->orphan();
  }
}

void Service::Core::readFdEvent(int fd) {
  Convention::OwnedFd client(::accept4(fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
  if (client.get() < 0) {
    if (errno != ECONNABORTED && errno != EPROTO && errno != EAGAIN && errno != EINTR) {
      deferReadEvent();  // no descriptor is left, for example
    }
    TOVIK_SERVICE_LOG(0, "cannot accept a client: " << std::strerror(errno));
    return;
  }
  if (!validateConnection(client.get())) {
    return;
  }
  const auto session = std::make_shared<ServedSession>(*this, ++lastNumber, judged);
  session->open(client);
  sessions.insert(session);
  TOVIK_SERVICE_LOG(2, "session " << session->number() << ", pid " << session->pid() << " begins");
  if (const auto handler = onJoin) {  // a copy, since it may destroy this
    handler(*session);
  }
}

void Service::Core::leave(ServedSession& session) {
  const auto kept = sessions.extract(session.shared_from_this());
  all.followers.erase(&session);
  for (auto& [topic, feed] : feeds) {
    feed.followers.erase(&session);
  }
  if (const auto handler = onLeave) {  // a copy, since it may destroy this
    handler(session);
  }
}

/// Sends an object to all who follow: 0, or why it cannot be.
int Service::Core::send(Feed& feed, const Message& message) {
  auto body =
      message.HasParseError() || !message.IsObject() ? std::nullopt : Convention::textOf(message);
  if (!body.has_value()) {
    return EINVAL;
  }
  const bool keeps = feed.topic.memory == Topic::kKeepLast;
  const std::string text = feed.head.empty() ? *body : Convention::joined(feed.head, *body);
  if (text.size() + (keeps ? kSnapshotMark : 0) > Convention::kLongestRecord) {
    return EMSGSIZE;
  }
  if (keeps) {
    feed.last = std::move(body);
  }
  for (ServedSession* session : feed.followers) {
    if (!session->followsAll()) {
      session->push(text, &feed);
    }
  }
  for (ServedSession* session : all.followers) {
    session->push(text, &feed);
  }
  return 0;
}

/// In as many parts as it takes. Once one was refused, the caller knows, and nothing more is sent.
void Service::Core::describe(Request& request) const {
  Message part;
  Convention::parse(part, itself.c_str());
  std::size_t size = itself.size();
  const auto add = [&](const char* list, const std::string& text) {
    if (size + text.size() > kLongestPart && request.isOpen() && request.more(part)) {
      part = object();
      size = 0;
    }
    auto& memory = part.GetAllocator();
    Message entry(&memory);
    Convention::parse(entry, text.c_str());
    if (!part.HasMember(list)) {
      part.AddMember(rapidjson::StringRef(list), rapidjson::kArrayType, memory);
    }
    part[list].PushBack(entry, memory);
    size += text.size() + kAroundEntry;
  };
  for (const auto& [command, entry] : commands) {
    add("commands", entry->described);
  }
  for (const auto& [topic, feed] : feeds) {
    add("topics", feed.described);
  }
  if (request.isOpen()) {
    request.reply(part);
  }
}

// --- calls ---

Session::Session(std::uint64_t number, int pid, unsigned uid, unsigned gid)
    : number_(number), pid_(pid), uid_(uid), gid_(gid) {}

Session::~Session() = default;

Refusal::~Refusal() = default;

Request::Request(std::shared_ptr<Call> call) : call_(std::move(call)) {}

std::string Request::command() const {
  return Tovik::get<std::string>(message(), "command").value_or("");
}

const Message& Request::message() const {
  return call_->message;
}

bool Request::fail(unsigned status, std::string_view text) {
  return answer(status, nullptr, text, false);
}

bool Request::isOpen() const noexcept {
  const auto session = call_->session.lock();
  return !call_->isAnswered && session != nullptr && session->isOpen();
}

std::shared_ptr<Session> Request::session() const {
  return call_->session.lock();
}

void Request::refuse(std::string_view name, const char* type) {
  throw Refusal(EINVAL, "argument '" + std::string(name) + "' is missing or no " + type);
}

/// What cannot be sent ends the call, with a reason that can.
bool Request::answer(unsigned status, const rapidjson::Value* result, std::string_view error,
                     bool more) {
  if (call_->isAnswered) {
    TOVIK_SERVICE_LOG(0, "a call that has been answered is answered again; this is not sent");
    return false;
  }
  const auto to = call_->session.lock();
  if (to == nullptr || !to->isOpen()) {
    call_->isAnswered = !more;
    return false;
  }
  const auto refused = [this](int why, const std::string& explained) {
    fail(static_cast<unsigned>(why), explained);
    return false;
  };
  std::string text = R"({"type":"reply","status":)" + std::to_string(status);
  if (call_->place->first != Call::kNoId) {
    text += R"(,"id":)" + std::to_string(call_->place->first);
  } else if (more) {
    return refused(EMSGSIZE, "the answer takes several records: give the call an id");
  }
  if (result != nullptr && !result->IsNull()) {
    const auto its = Convention::textOf(*result);
    if (!its.has_value()) {
      return refused(EINVAL, "the result holds a number that JSON cannot express");
    }
    text += R"(,"result":)" + *its;
  }
  if (!error.empty()) {
    text += R"(,"error":)" + Convention::quoted(shortened(error));
  }
  text += more ? R"(,"more":true})" : "}";
  if (text.size() > Convention::kLongestRecord) {
    return refused(EMSGSIZE, "the answer of " + std::to_string(text.size()) + " bytes is too long");
  }
  call_->isAnswered = !more;
  to->reply(call_->place, std::move(text), more);
  return true;
}

// --- services ---

Service::Service(const std::string& name, Admission admission, ServiceOptions options)
    : core_(std::make_unique<Core>(name, std::move(admission), std::move(options))) {}

Service::~Service() = default;

void Service::command(const std::string& name, const std::string& description,
                      const std::vector<Argument>& arguments, Handler handler) {
  const bool isOwn = name == "subscribe" || name == "unsubscribe" || name == "describe";
  requireNew(!isOwn && core_->commands.count(name) == 0, "the command '" + name + "'");
  std::vector<Message> list;
  list.reserve(arguments.size());
  for (const auto& argument : arguments) {
    list.push_back(object("name", argument.name, "type", argument.type, "required",
                          argument.isRequired, "description", argument.description));
  }
  const auto its = object("name", name, "description", description, "arguments", list);
  core_->commands.emplace(
      name, std::make_shared<const Command>(
                Command{arguments, std::move(handler), described(its, "command '" + name + "'")}));
}

void Service::topic(const std::string& name, Topic topic) {
  requireNew(core_->feeds.count(name) == 0, "the topic '" + name + "'");
  const auto its = object("name", name, "description", topic.description, "keepsLast",
                          topic.memory == Topic::kKeepLast);
  core_->feeds.emplace(name, Feed{std::move(topic),
                                  R"({"type":"event","topic":)" + Convention::quoted(name),
                                  described(its, "topic '" + name + "'"),
                                  {},
                                  {}});
}

int Service::publish(std::string_view topic, const Message& message) {
  const auto found = core_->feeds.find(topic);
  const bool isEvent = found != core_->feeds.end() && find(message, "type") == nullptr &&
                       find(message, "topic") == nullptr && find(message, "snapshot") == nullptr;
  const int status = isEvent ? core_->send(found->second, message) : EINVAL;
  if (status != 0) {
    TOVIK_SERVICE_LOG(0, core_->name << ": an event of topic '" << topic
                                     << "' is refused: " << std::strerror(status));
  }
  return status;
}

void Service::otherwise(Handler handler) {
  core_->otherwise = std::make_shared<const Command>(Command{{}, std::move(handler), {}});
}

int Service::notify(const Message& message) {
  const auto type = get<std::string>(message, "type");
  const bool isOurs = type == "reply" || type == "event";
  const int status = isOurs ? EINVAL : core_->send(core_->all, message);
  if (status != 0) {
    TOVIK_SERVICE_LOG(0, core_->name << ": a notification is refused: " << std::strerror(status));
  }
  return status;
}

void Service::onJoin(SessionHandler handler) {
  core_->onJoin = std::move(handler);
}

void Service::onLeave(SessionHandler handler) {
  core_->onLeave = std::move(handler);
}

std::size_t Service::sessions() const noexcept {
  return core_->sessions.size();
}

}  // namespace Tovik
