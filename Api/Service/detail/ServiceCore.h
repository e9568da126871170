#pragma once

// Private. A service's insides. The core owns the listener and the sessions; a session knows its
// core until that goes; a call knows its session while that lives.

#include <sys/socket.h>

#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "Api/Json/Server.h"
#include "Api/Service/Service.h"
#include "Api/Service/detail/Link.h"
#include "Kelvo/Platform/EventLoop.h"

namespace Tovik {

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
  std::vector<Argument> arguments;
  Service::Handler handler;
  std::string described;  // for "describe"
};

/// Admits clients. Each is judged and closed, or becomes a session.
class Listener final : public Server {
 public:
  using Admitted = std::function<void(int fd, const ucred& peer)>;

  Listener(const std::string& name, Service::Admission admission, Admitted admitted);
  void readFdEvent(int fd) override;

 private:
  const Admitted admitted_;
  ucred peer_{};
};

/// Where calls belong: the thread of the service's loop, and the way there.
struct Home {
  const std::thread::id thread = std::this_thread::get_id();
  const Kelvo::Platform::EventLoop::Remote loop = Kelvo::Platform::EventLoop::current().remote();
};

/// One call, until it has been answered.
struct Request::Call {
  /// The answers to calls without an id, in the order of the calls. What is answered out of turn
  /// waits here for those before it; an empty text is an answer that is not sent.
  using Turns = std::list<std::optional<std::string>>;

  explicit Call(std::shared_ptr<const Home> where) : message(&pool), home(std::move(where)) {}
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;
  ~Call();

  bool answer(unsigned status, const rapidjson::Value* result, std::string_view error, bool more);

  // A record's values take little room; the default would be 64 KiB for each call.
  rapidjson::MemoryPoolAllocator<> pool{512};
  Message message;
  std::shared_ptr<const Home> home;
  std::weak_ptr<ServedSession> session;
  std::optional<std::uint64_t> id;
  Turns::iterator turn;     // if there is no id
  bool isInFlight = false;  // and counted by its session
  bool isAnswered = false;
};

class ServedSession final : public Session,
                            public Link,
                            public std::enable_shared_from_this<ServedSession> {
 public:
  ServedSession(Service::Core& core, std::uint64_t number, const ucred& peer);

  std::size_t queuedRecords() const noexcept override { return Link::queuedRecords(); }
  std::size_t queuedBytes() const noexcept override { return Link::queuedBytes(); }
  void close() override { shutDown("closed by the service"); }

  /// The service has gone.
  void orphan() {
    core_ = nullptr;
    drop();
  }

  /// An event of this feed.
  void deliver(const Feed& feed, const Link::Text& text);
  /// Sends it, or ends the session if its queue is full.
  void push(Link::Text text, const Feed* feed = nullptr);
  /// Also given all events, by the core's notification switch.
  bool followsAll() const noexcept { return followsAll_; }

  void sendReply(const Request::Call& call, std::string text);
  void finish(const Request::Call& call) { ids_.erase(*call.id); }

 private:
  void onRecord(const char* text) override;
  void onTooLong(std::size_t size) override;
  void onEnd(const std::string& reason) override;

  bool takeIn(Request::Call& call);
  void refuse(Request::Call& call, int status, const std::string& why) const;
  bool isBusyFor(const Request::Call& call) const;
  void dispatch(const std::shared_ptr<Request::Call>& call);
  void run(const std::shared_ptr<const Command>& command,
           const std::shared_ptr<Request::Call>& call);
  bool isSwitch(const Message& message) const;
  void applySwitch(Request::Call& call);
  void changeSubscriptions(Request::Call& call, bool subscribe);
  void follow(Feed& feed);
  void flushTurns();

  Service::Core* core_;
  bool followsAll_ = false;
  std::unordered_set<std::uint64_t> ids_;  // of calls that are not answered yet
  Request::Call::Turns turns_;
};

struct Service::Core {
  Core(std::string name, Admission admission, ServiceOptions options);
  Core(const Core&) = delete;
  Core& operator=(const Core&) = delete;
  ~Core();

  void join(int fd, const ucred& peer);
  void leave(ServedSession& session);
  int publish(std::string_view topic, const Message& message);
  int notify(const Message& message) const;
  std::shared_ptr<const Command> commandFor(std::optional<std::string_view> wanted) const;
  void describe(Request request) const;

  const std::string name;
  const ServiceOptions options;
  const std::shared_ptr<const Home> home = std::make_shared<const Home>();
  const std::string itself;  // for "describe"
  std::map<std::string, std::shared_ptr<const Command>, std::less<>> commands;
  std::shared_ptr<const Command> otherwise;  // or null
  std::map<std::string, Feed, std::less<>> feeds;
  std::unordered_set<ServedSession*> followAll;
  SessionHandler onJoin, onLeave;
  std::unordered_map<std::uint64_t, std::shared_ptr<ServedSession>> sessions;
  std::uint64_t lastNumber = 0;
  Listener listener;
};

}  // namespace Tovik
