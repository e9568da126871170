// A client of a service. timer -> connect -> subscribe -> what waits is sent; record -> reply or
// event -> callback; time limit -> outcome; end -> outcomes -> timer.

#include "Api/Service/Proxy.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <list>
#include <map>
#include <random>
#include <set>
#include <utility>

#include "Api/Service/detail/Link.h"
#include "Api/Service/detail/Outcomes.h"
#include "Kelvo/Platform/TimeoutHandler.h"

namespace Tovik {

namespace {

constexpr double kBacklogWait = 0.01;       // seconds; nothing reports when there is room
constexpr std::size_t kMostTimedOut = 100;  // calls that a server may leave without any answer
constexpr Proxy::Seconds kSubscribeLimit(30);
constexpr auto kNever = Clock::time_point::max();

double randomBelow(double bound) {
  thread_local std::minstd_rand generator{std::random_device()()};
  return bound > 0 ? std::uniform_real_distribution<double>(0, bound)(generator) : 0;
}

}  // namespace

class Proxy::Impl final : public Link,
                          public Kelvo::Platform::TimeoutHandler,
                          public std::enable_shared_from_this<Impl> {
 public:
  Impl(const std::string& name, ProxyOptions options)
      : Link(options.queuedRecords, options.queuedBytes),
        name_(name),
        options_(std::move(options)),
        address_(Convention::addressOf(name)) {
    retryIn(0);
  }

  struct Subscription {
    EventHandler handler;
    Callback answered;
  };
  std::map<std::string, Subscription> subscriptions;
  Credentials server{};
  std::function<void()> onConnect;
  std::function<void(const std::string&)> onLoss;
  EventHandler onMessage;

  void call(const Message& message, Seconds limit, Callback callback) {
    if (isClosed_) {
      return;
    }
    Outgoing outgoing;
    if (auto refused = prepare(name_, message, outgoing)) {
      return later(std::move(callback), *std::move(refused));
    }
    const bool room =
        isOpen() ? hasRoom(Convention::kLongestRecord)
                 : calls_.size() < options_.queuedRecords &&
                       (calls_.size() + 1) * Convention::kLongestRecord <= options_.queuedBytes;
    if (!room) {
      return later(std::move(callback), ended(Outcome::kRefused, EBUSY, outgoing.subject,
                                              "too many calls wait to be sent"));
    }
    start({std::move(outgoing), limit, after(limit), std::move(callback)});
  }

  /// For a subscription's sake.
  void ask(const char* command, const std::string& topic, Callback callback) {
    if (isOpen()) {
      call(object("command", command, "topics", std::vector{topic}), kSubscribeLimit,
           [callback = std::move(callback)](Outcome outcome) {
             takeAnswer(std::move(outcome), callback);
           });
    }
  }

  void close() {
    isClosed_ = true;
    drop();
    endCalls("the proxy is destroyed");
    timer_->disarm();
    while (!ended_.empty()) {
      deliver();
    }
    onConnect = nullptr;
    onLoss = nullptr;
  }

 private:
  struct Call {
    Outgoing outgoing;  // whose body is empty once it has been sent
    Seconds limit;
    Clock::time_point deadline;  // never, once it has timed out
    Callback callback;
  };
  using Calls = std::map<std::uint64_t, Call>;  // in the order of sending
  enum class Replies : unsigned char { kUnknown, kWithIds, kPlain };

  // --- connecting ---

  void retryIn(double seconds, double jitter = 0) {
    retry_ = after(Seconds(seconds + randomBelow(jitter)));
    wakeAt(retry_);
  }

  void connect() {
    retryIn(options_.reconnectInterval, options_.jitter);  // also if this throws
    whyNot_ = tryConnect();
    if (!whyNot_.empty()) {
      TOVIK_SERVICE_LOG(0, name_ << ": cannot connect: " << whyNot_);
      return;
    }
    retry_ = kNever;
    replies_ = Replies::kUnknown;
    deadlines_.clear();
    auto waiting = std::exchange(calls_, {});
    for (const auto& [topic, subscription] : subscriptions) {
      ask("subscribe", topic, subscription.answered);
    }
    for (auto& [id, call] : waiting) {
      start(std::move(call));
    }
    if (const auto handler = onConnect) {
      handler();
    }
  }

  /// Why it could not; empty if it could.
  std::string tryConnect() {
    Convention::OwnedFd fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    ucred peer{};
    socklen_t size = sizeof peer;
    if (fd.get() < 0 ||
        ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address_), sizeof address_) < 0 ||
        ::getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) < 0) {
      if (errno != EAGAIN) {
        return std::strerror(errno);
      }
      retryIn(std::min(options_.reconnectInterval, kBacklogWait + randomBelow(kBacklogWait)));
      return "its backlog is full";
    }
    if (options_.accepts && !options_.accepts(peer.pid, peer.uid, peer.gid)) {
      return "its server, of user " + std::to_string(peer.uid) + ", is not accepted";
    }
    open(fd);
    server = {peer.pid, peer.uid, peer.gid};
    return {};
  }

  void onEnd(const std::string& reason) override {
    const auto self = shared_from_this();  // callbacks may destroy the proxy
    retryIn(options_.reconnectInterval, options_.jitter);
    TOVIK_SERVICE_LOG(2, name_ << ": connection lost: " << reason);
    whyNot_ = reason;
    endCalls(reason);
    deliver();
    if (const auto handler = onLoss) {
      handler(reason);
    }
  }

  // --- calling ---

  void start(Call call) {
    const std::uint64_t id = ++lastId_;
    deadlines_.emplace(call.deadline, id);
    wakeAt(call.deadline);
    if (isOpen()) {
      send(textOf(call.outgoing, id));
      call.outgoing.body.clear();
    }
    calls_.emplace_hint(calls_.end(), id, std::move(call));
  }

  static void takeAnswer(Outcome outcome, const Callback& callback) {
    if (!outcome) {
      TOVIK_SERVICE_LOG(0, outcome.error);
    }
    if (callback) {
      callback(std::move(outcome));
    }
  }

  // --- records ---

  void onRecord(const char* text, std::size_t size) override {
    const auto self = shared_from_this();
    if (size > Convention::kLongestRecord) {
      TOVIK_SERVICE_LOG(1, name_ << ": a record of " << size << " bytes is dropped");
      return;
    }
    Message message;
    Convention::parse(message, text);
    if (!message.IsObject()) {
      TOVIK_SERVICE_LOG(1, name_ << ": a record that is no JSON object is dropped");
      return;
    }
    const auto type = get<std::string>(message, "type");
    if (type == "reply") {
      takeReply(std::move(message));
    } else if (type == "event") {
      takeEvent(message);
    } else if (const auto handler = onMessage) {
      handler(message);
    }
  }

  void takeReply(Message reply) {
    const auto found = callOf(reply);
    if (found == calls_.end()) {
      TOVIK_SERVICE_LOG(1, name_ << ": a reply to no call in flight is dropped");
      return;
    }
    Call& call = found->second;
    if (call.deadline == kNever) {
      calls_.erase(found);
      if (replies_ == Replies::kPlain && !calls_.empty()) {
        shutDown("a reply came that may belong to either of two calls");
      }
      return;
    }
    auto outcome = outcomeOf(std::move(reply), call.outgoing.subject);
    if (!outcome.has_value()) {
      return;
    }
    const auto callback = call.callback;
    if (!outcome->more) {
      deadlines_.erase({call.deadline, found->first});
      calls_.erase(found);
    }
    if (callback) {
      callback(*std::move(outcome));
    }
  }

  /// Whose reply it is. Without an id, it belongs to the first call, if the server knows no ids.
  Calls::iterator callOf(const Message& reply) {
    if (find(reply, "id") == nullptr) {
      if (replies_ == Replies::kWithIds) {
        return calls_.end();
      }
      replies_ = Replies::kPlain;
      return calls_.begin();
    }
    const auto id = get<std::uint64_t>(reply, "id");
    const auto found = id.has_value() ? calls_.find(*id) : calls_.end();
    if (found != calls_.end()) {
      replies_ = Replies::kWithIds;
    }
    return found;
  }

  void takeEvent(const Message& event) {
    const auto topic = get<std::string>(event, "topic");
    const auto found = topic.has_value() ? subscriptions.find(*topic) : subscriptions.end();
    if (found == subscriptions.end()) {
      TOVIK_SERVICE_LOG(1, name_ << ": an event of no topic that is followed is dropped");
    } else if (const auto handler = found->second.handler) {  // a copy: it may unsubscribe
      handler(event);
    }
  }

  // --- ends without a reply ---

  void wakeAt(Clock::time_point time) {
    if (time < wake_ && !isClosed_) {
      wake_ = time;
      timer_->arm(Seconds(time - Clock::now()).count());
    }
  }

  void timeout() override {
    const auto self = shared_from_this();
    wake_ = kNever;
    const auto now = Clock::now();
    while (!deadlines_.empty() && deadlines_.begin()->first <= now) {
      const auto late = calls_.find(deadlines_.begin()->second);
      deadlines_.erase(deadlines_.begin());
      timeOut(late);
    }
    if (!deadlines_.empty()) {
      wakeAt(deadlines_.begin()->first);
    }
    if (retry_ > now) {
      wakeAt(retry_);
    } else {
      if (!ended_.empty()) {
        wakeAt(now);  // for them, if a handler throws
      }
      connect();
    }
    deliver();
  }

  /// One that has been sent keeps its place, in case that replies turn out to have no ids.
  void timeOut(Calls::iterator late) {
    Call& call = late->second;
    call.deadline = kNever;
    const auto why = isOpen() ? within("no reply", call.limit)
                              : within("not connected", call.limit) + ": " + whyNot_;
    later(std::move(call.callback),
          ended(Outcome::kTimedOut, ETIMEDOUT, call.outgoing.subject, why));
    if (isOpen() && replies_ == Replies::kUnknown) {
      if (calls_.size() - deadlines_.size() > kMostTimedOut) {
        shutDown("the server does not answer");
      }
      return;
    }
    if (isOpen() && replies_ == Replies::kPlain) {
      shutDown("a call timed out, and replies without ids could be mistaken");
    }
    calls_.erase(late);
  }

  /// All that have been sent; what still waits for a connection may go on doing so, unless there
  /// will be none.
  void endCalls(const std::string& reason) {
    for (auto at = calls_.begin(); at != calls_.end();) {
      auto& [id, call] = *at;
      if (!call.outgoing.body.empty() && !isClosed_) {
        ++at;
        continue;
      }
      if (call.deadline != kNever) {
        deadlines_.erase({call.deadline, id});
        later(std::move(call.callback), ended(Outcome::kLost, ECONNRESET, call.outgoing.subject,
                                              "connection lost: " + reason));
      }
      at = calls_.erase(at);
    }
  }

  void later(Callback callback, Outcome outcome) {
    if (callback) {
      ended_.emplace_back(std::move(callback), std::move(outcome));
      wakeAt(Clock::now());
    }
  }

  /// Those that have ended by now; the timer is armed for what comes meanwhile, or is left by an
  /// exception.
  void deliver() {
    for (auto count = ended_.size(); count > 0 && !ended_.empty(); --count) {
      auto [callback, outcome] = std::move(ended_.front());
      ended_.pop_front();
      if (!ended_.empty()) {
        wakeAt(Clock::now());
      }
      callback(std::move(outcome));
    }
  }

  const std::string name_;
  const ProxyOptions options_;
  const sockaddr_un address_;
  bool isClosed_ = false;
  std::string whyNot_ = "not tried yet";  // connected
  Replies replies_ = Replies::kUnknown;   // of this connection
  std::uint64_t lastId_ = 0;
  Calls calls_;  // in flight; without a connection, waiting for one
  std::set<std::pair<Clock::time_point, std::uint64_t>> deadlines_;
  std::list<std::pair<Callback, Outcome>> ended_;  // whose callbacks are to be called
  Clock::time_point retry_ = kNever;               // when to connect again
  Clock::time_point wake_ = kNever;                // what the timer is armed for
  const Kelvo::Ptr<Kelvo::Platform::Timer> timer_ = Kelvo::Platform::getTimer(this);
};

Proxy::Proxy(const std::string& name, ProxyOptions options)
    : impl_(std::make_shared<Impl>(name, std::move(options))) {}

Proxy::~Proxy() {
  impl_->close();
}

void Proxy::call(const Message& message, Seconds limit, Callback callback) {
  impl_->call(message, limit, std::move(callback));
}

void Proxy::subscribe(const std::string& topic, EventHandler handler, Callback answered) {
  impl_->subscriptions[topic] = {std::move(handler), answered};
  impl_->ask("subscribe", topic, std::move(answered));
}

void Proxy::unsubscribe(const std::string& topic) {
  if (impl_->subscriptions.erase(topic) != 0) {
    impl_->ask("unsubscribe", topic, {});
  }
}

void Proxy::onConnect(std::function<void()> handler) {
  impl_->onConnect = std::move(handler);
}

void Proxy::onLoss(std::function<void(const std::string& reason)> handler) {
  impl_->onLoss = std::move(handler);
}

void Proxy::onMessage(EventHandler handler) {
  impl_->onMessage = std::move(handler);
}

bool Proxy::isConnected() const noexcept {
  return impl_->isOpen();
}

std::optional<Credentials> Proxy::server() const {
  return isConnected() ? std::optional(impl_->server) : std::nullopt;
}

}  // namespace Tovik
