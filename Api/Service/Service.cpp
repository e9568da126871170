// The service as a whole. client -> judged -> session; event -> text -> every follower;
// description -> parts that fit into records.

#include "Api/Service/Service.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "Api/Service/detail/Convention.h"
#include "Api/Service/detail/ServiceCore.h"
#include "Kelvo/Exception.h"

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

std::string describedCommand(const std::string& name, const std::string& description,
                             const std::vector<Argument>& arguments) {
  std::vector<Message> list;
  list.reserve(arguments.size());
  for (const auto& argument : arguments) {
    list.push_back(object("name", argument.name, "type", argument.type, "required",
                          argument.isRequired, "description", argument.description));
  }
  return described(object("name", name, "description", description, "arguments", list),
                   "command '" + name + "'");
}

void requireNew(bool isNew, const std::string& what) {
  if (!isNew) {
    throw Kelvo::Exception(what + " is taken", false);
  }
}

Message parsed(const std::string& text) {
  Message msg;
  Convention::parse(msg, text.c_str());
  return msg;
}

/// Adds an entry to one of the lists of a part of a description.
void append(Message& part, const char* list, const std::string& entry) {
  auto& memory = part.GetAllocator();
  if (!part.HasMember(list)) {
    part.AddMember(rapidjson::StringRef(list), rapidjson::Value(rapidjson::kArrayType), memory);
  }
  part[list].PushBack(rapidjson::Value(parsed(entry), memory), memory);
}

}  // namespace

// --- admission ---

Listener::Listener(const std::string& name, Service::Admission admission, Admitted admitted)
    : Server(name, {},
             [this, admission = std::move(admission)](int pid, unsigned uid, unsigned gid) {
               peer_ = {pid, uid, gid};
               return admission(pid, uid, gid);
             }),
      admitted_(std::move(admitted)) {}

void Listener::readFdEvent(int fd) {
  const int client = ::accept4(fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (client < 0) {
    if (errno != ECONNABORTED && errno != EPROTO && errno != EAGAIN && errno != EINTR) {
      deferReadEvent();  // no descriptor is left, for example
    }
    TOVIK_SERVICE_LOG(0, "cannot accept a client: " << std::strerror(errno));
    return;
  }
  Convention::OwnedFd owned(client);
  if (validateConnection(client)) {
    admitted_(owned.release(), peer_);
  }
}

// --- the core ---

Service::Core::Core(std::string serviceName, Admission admission, ServiceOptions serviceOptions)
    : name((Convention::requireName(serviceName), std::move(serviceName))),
      options(std::move(serviceOptions)),
      itself(described(object("name", name, "description", options.description), "the service")),
      listener(name, std::move(admission), [this](int fd, const ucred& peer) { join(fd, peer); }) {}

Service::Core::~Core() {
  for (const auto& [number, session] : sessions) {
    session->orphan();
  }
}

void Service::Core::join(int fd, const ucred& peer) {
  Convention::OwnedFd owned(fd);
  const auto session = std::make_shared<ServedSession>(*this, ++lastNumber, peer);
  session->open(fd);
  owned.release();
  sessions.emplace(session->number(), session);
  TOVIK_SERVICE_LOG(2, "session " << session->number() << ", pid " << peer.pid << " begins");
  if (const auto handler = onJoin) {  // a copy, since it may destroy this
    handler(*session);
  }
}

void Service::Core::leave(ServedSession& session) {
  const auto kept = session.shared_from_this();
  sessions.erase(session.number());
  followAll.erase(&session);
  for (auto& [topic, feed] : feeds) {
    feed.followers.erase(&session);
  }
  if (const auto handler = onLeave) {  // a copy, since it may destroy this
    handler(session);
  }
}

int Service::Core::publish(std::string_view topic, const Message& message) {
  const auto found = feeds.find(topic);
  if (found == feeds.end() || message.HasParseError() || !message.IsObject() ||
      message.HasMember("type") || message.HasMember("topic") || message.HasMember("snapshot")) {
    return EINVAL;
  }
  auto body = Convention::textOf(message);
  if (!body.has_value()) {
    return EINVAL;
  }
  Feed& feed = found->second;
  const bool keeps = feed.topic.memory == Topic::kKeepLast;
  const auto text = std::make_shared<const std::string>(Convention::joined(feed.head, *body));
  if (text->size() + (keeps ? kSnapshotMark : 0) > Convention::kLongestRecord) {
    return EMSGSIZE;
  }
  if (keeps) {
    feed.last = std::move(body);
  }
  for (ServedSession* session : feed.followers) {
    if (!session->followsAll()) {
      session->deliver(feed, text);
    }
  }
  for (ServedSession* session : followAll) {
    session->deliver(feed, text);
  }
  return 0;
}

int Service::Core::notify(const Message& message) const {
  const auto type = Convention::textMember(message, "type");
  if (message.HasParseError() || !message.IsObject() || type == "reply" || type == "event") {
    return EINVAL;
  }
  auto text = Convention::textOf(message);
  if (!text.has_value()) {
    return EINVAL;
  }
  if (text->size() > Convention::kLongestRecord) {
    return EMSGSIZE;
  }
  const auto shared = std::make_shared<const std::string>(*std::move(text));
  for (ServedSession* session : followAll) {
    session->push(shared);
  }
  return 0;
}

std::shared_ptr<const Command> Service::Core::commandFor(
    std::optional<std::string_view> wanted) const {
  const auto found = wanted.has_value() ? commands.find(*wanted) : commands.end();
  return found == commands.end() ? otherwise : found->second;
}

/// In as many parts as it takes. Once one was refused, the caller knows, and nothing more is sent.
void Service::Core::describe(Request request) const {
  Message part = parsed(itself);
  std::size_t size = itself.size();
  const auto add = [&](const char* list, const std::string& entry) {
    if (!request.isOpen()) {
      return;
    }
    if (size + entry.size() > kLongestPart && request.more(part)) {
      part = object();
      size = 0;
    }
    append(part, list, entry);
    size += entry.size() + kAroundEntry;
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

// --- the face ---

Service::Service(const std::string& name, Admission admission, ServiceOptions options)
    : core_(std::make_unique<Core>(name, std::move(admission), std::move(options))) {}

Service::~Service() = default;

void Service::command(const std::string& name, const std::string& description,
                      const std::vector<Argument>& arguments, Handler handler) {
  const bool isOwn = name == "subscribe" || name == "unsubscribe" || name == "describe";
  requireNew(!isOwn && core_->commands.count(name) == 0, "the command '" + name + "'");
  core_->commands.emplace(
      name, std::make_shared<const Command>(Command{
                arguments, std::move(handler), describedCommand(name, description, arguments)}));
}

void Service::topic(const std::string& name, Topic topic) {
  requireNew(core_->feeds.count(name) == 0, "the topic '" + name + "'");
  const bool keeps = topic.memory == Topic::kKeepLast;
  Feed feed;
  feed.described =
      described(object("name", name, "description", topic.description, "keepsLast", keeps),
                "topic '" + name + "'");
  feed.head = R"({"type":"event","topic":)" + Convention::quoted(name);
  feed.topic = std::move(topic);
  core_->feeds.emplace(name, std::move(feed));
}

int Service::publish(std::string_view topic, const Message& message) {
  const int status = core_->publish(topic, message);
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
  const int status = core_->notify(message);
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
