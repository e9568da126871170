// A client of a service. timer -> connect -> subscribe -> what waits is sent; record -> reply or
// event -> callback; time limit -> outcome; end -> outcomes -> timer.

#include "Api/Service/Proxy.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <deque>
#include <map>
#include <random>
#include <set>
#include <string_view>

#include "Api/Service/detail/Alarm.h"
#include "Api/Service/detail/Convention.h"
#include "Api/Service/detail/Link.h"
#include "Api/Service/detail/Outcomes.h"

namespace Tovik {

namespace {

using Clock = std::chrono::steady_clock;

constexpr double kBacklogWait = 0.01;  // seconds; nothing reports when there is room
constexpr double kLongestLimit = 1e8;
constexpr int kMostTimedOut = 100;  // calls that a server may leave without any answer
constexpr Proxy::Seconds kSubscribeLimit(30);

Clock::time_point after(Proxy::Seconds limit) {
  const Proxy::Seconds sensible(limit.count() > 0 ? std::min(limit.count(), kLongestLimit)
                                                  : 0.0);  // NaN is no limit to keep
  return Clock::now() + std::chrono::duration_cast<Clock::duration>(sensible);
}

double randomBelow(double bound) {
  thread_local std::minstd_rand generator{std::random_device()()};
  return bound > 0 ? std::uniform_real_distribution<double>(0, bound)(generator) : 0;
}

}  // namespace

class Proxy::Impl final : public Link, public std::enable_shared_from_this<Impl> {
 public:
  Impl(const std::string& name, ProxyOptions options);

  void call(const Message& message, Seconds limit, Callback callback);
  void subscribe(const std::string& topic, EventHandler handler, Callback answered);
  void unsubscribe(const std::string& topic);
  std::optional<Credentials> server() const { return isOpen() ? server_ : std::nullopt; }
  void close();

  std::function<void()> onConnect;
  std::function<void(const std::string&)> onLoss;
  EventHandler onMessage;

 private:
  struct Call {
    Outgoing outgoing;  // whose body is empty once it has been sent
    Seconds limit;
    Clock::time_point deadline;
    Callback callback;
    bool hasTimedOut;  // and keeps its place, in case that replies turn out to have no ids
  };
  struct Subscription {
    EventHandler handler;
    Callback answered;
  };
  struct Ended {
    Callback callback;
    Outcome outcome;
  };
  using Calls = std::map<std::uint64_t, Call>;  // in the order of sending
  enum class Replies : unsigned char { kUnknown, kWithIds, kPlain };

  void connect();
  std::string tryConnect();
  void connected();
  void retryIn(double seconds) { retry_.arm(seconds + randomBelow(options_.jitter)); }

  void start(Call call);
  void ask(const char* command, const std::string& topic, Callback callback);

  void onRecord(const char* text, std::size_t size) override;
  void onEnd(const std::string& reason) override;
  void takeReply(Message reply);
  Calls::iterator callOf(const Message& reply);
  void forgetTimedOut(std::uint64_t except);
  void takeEvent(const Message& event);

  void wakeAt(Clock::time_point time);
  void expire();
  void timeOut(Calls::iterator late);
  void endSent(const std::string& reason);
  void later(Callback callback, Outcome outcome);
  void deliver();

  const std::string name_;
  const ProxyOptions options_;
  bool isClosed_ = false;
  std::optional<Credentials> server_;
  std::string whyNot_ = "not tried yet";  // connected
  Replies replies_ = Replies::kUnknown;   // of this connection
  std::uint64_t lastId_ = 0;
  Calls calls_;  // in flight; without a connection, waiting for one
  std::set<std::pair<Clock::time_point, std::uint64_t>> deadlines_;
  std::deque<Ended> ended_;  // whose callbacks are to be called
  std::map<std::string, Subscription, std::less<>> subscriptions_;
  Clock::time_point wake_ = Clock::time_point::max();  // what the alarm is set for
  Alarm retry_;
  Alarm limits_;
};

// --- connecting ---

Proxy::Impl::Impl(const std::string& name, ProxyOptions options)
    : Link(options.queuedRecords, options.queuedBytes),
      name_(name),
      options_(std::move(options)),
      retry_([this] { connect(); }),
      limits_([this] { expire(); }) {
  Convention::addressOf(name_);  // throws if it is none
  retry_.arm(0);
}

void Proxy::Impl::connect() {
  const auto self = shared_from_this();  // callbacks may destroy the proxy
  retryIn(options_.reconnectInterval);   // also if this throws
  whyNot_ = tryConnect();
  if (whyNot_.empty()) {
    return connected();
  }
  TOVIK_SERVICE_LOG(0, name_ << ": cannot connect: " << whyNot_);
}

/// Why it could not; empty if it could.
std::string Proxy::Impl::tryConnect() {
  Convention::OwnedFd fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (fd.get() < 0) {
    return std::strerror(errno);
  }
  const sockaddr_un address = Convention::addressOf(name_);
  if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0) {
    if (errno != EAGAIN) {
      return std::strerror(errno);
    }
    retry_.arm(std::min(options_.reconnectInterval, kBacklogWait + randomBelow(kBacklogWait)));
    return "its backlog is full";
  }
  ucred peer{};
  socklen_t size = sizeof peer;
  if (::getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) < 0) {
    return std::strerror(errno);
  }
  if (options_.accepts && !options_.accepts(peer.pid, peer.uid, peer.gid)) {
    return "its server, of user " + std::to_string(peer.uid) + ", is not accepted";
  }
  open(fd);
  server_ = Credentials{peer.pid, peer.uid, peer.gid};
  return {};
}

void Proxy::Impl::connected() {
  retry_.disarm();
  replies_ = Replies::kUnknown;
  deadlines_.clear();
  auto waiting = std::exchange(calls_, {});
  for (const auto& [topic, subscription] : subscriptions_) {
    ask("subscribe", topic, subscription.answered);
  }
  for (auto& [id, call] : waiting) {
    start(std::move(call));
  }
  if (const auto handler = onConnect) {
    handler();
  }
}

void Proxy::Impl::onEnd(const std::string& reason) {
  const auto self = shared_from_this();
  retryIn(options_.reconnectInterval);
  TOVIK_SERVICE_LOG(2, name_ << ": connection lost: " << reason);
  whyNot_ = reason;
  endSent(reason);
  deliver();
  if (const auto handler = onLoss) {
    handler(reason);
  }
}

void Proxy::Impl::close() {
  isClosed_ = true;
  drop();
  retry_.disarm();
  for (auto& [id, call] : calls_) {
    call.outgoing.body.clear();  // will not be sent any more
  }
  endSent("the proxy is destroyed");
  limits_.disarm();
  while (!ended_.empty()) {
    deliver();
  }
  onConnect = nullptr;
  onLoss = nullptr;
}

// --- calling ---

void Proxy::Impl::call(const Message& message, Seconds limit, Callback callback) {
  if (isClosed_) {
    return;
  }
  Outgoing outgoing{subjectOf(name_, message), {}};
  if (auto outcome = prepare(message, outgoing)) {
    return later(std::move(callback), *std::move(outcome));
  }
  const bool room =
      isOpen() ? hasRoom(Convention::kLongestRecord)
               : calls_.size() < options_.queuedRecords &&
                     (calls_.size() + 1) * Convention::kLongestRecord <= options_.queuedBytes;
  if (!room) {
    return later(std::move(callback), ended(Outcome::kRefused, EBUSY, outgoing.subject,
                                            "too many calls wait to be sent"));
  }
  start({std::move(outgoing), limit, after(limit), std::move(callback), false});
}

void Proxy::Impl::start(Call call) {
  const std::uint64_t id = ++lastId_;
  deadlines_.emplace(call.deadline, id);
  wakeAt(call.deadline);
  if (isOpen()) {
    send(textOf(call.outgoing, id));
    call.outgoing.body.clear();
  }
  calls_.emplace_hint(calls_.end(), id, std::move(call));
}

namespace {

void logRefusedSubscription(const Outcome& outcome) {
  TOVIK_SERVICE_LOG(0, outcome.error);
}

}  // namespace

/// For a subscription's sake.
void Proxy::Impl::ask(const char* command, const std::string& topic, Callback callback) {
  auto answered = [callback = std::move(callback)](Outcome outcome) {
    if (!outcome) {
      logRefusedSubscription(outcome);
    }
    if (callback) {
      callback(std::move(outcome));
    }
  };
  call(object("command", command, "topics", std::vector{topic}), kSubscribeLimit, answered);
}

void Proxy::Impl::subscribe(const std::string& topic, EventHandler handler, Callback answered) {
  subscriptions_[topic] = {std::move(handler), answered};
  if (isOpen()) {
    ask("subscribe", topic, std::move(answered));
  }
}

void Proxy::Impl::unsubscribe(const std::string& topic) {
  if (subscriptions_.erase(topic) != 0 && isOpen()) {
    ask("unsubscribe", topic, {});
  }
}

// --- records ---

void Proxy::Impl::onRecord(const char* text, std::size_t size) {
  const auto self = shared_from_this();
  if (size > Convention::kLongestRecord) {
    TOVIK_SERVICE_LOG(1, name_ << ": a record of " << size << " bytes is dropped");
    return;
  }
  Message message;
  Convention::parse(message, text);
  if (!message.IsObject()) {
    TOVIK_SERVICE_LOG(1, name_ << ": a record that is no JSON object is dropped");
  } else if (isReply(message)) {
    takeReply(std::move(message));
  } else if (get<std::string>(message, "type") == "event") {
    takeEvent(message);
  } else if (const auto handler = onMessage) {
    handler(message);
  }
}

void Proxy::Impl::takeReply(Message reply) {
  const auto found = callOf(reply);
  if (found == calls_.end()) {
    TOVIK_SERVICE_LOG(1, name_ << ": a reply to no call in flight is dropped");
    return;
  }
  Call& call = found->second;
  if (call.hasTimedOut) {
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
  auto callback = call.callback;
  if (!outcome->more) {
    deadlines_.erase({call.deadline, found->first});
    calls_.erase(found);
  }
  if (callback) {
    callback(*std::move(outcome));
  }
}

/// Whose reply it is. Without an id, it belongs to the first call, if the server knows no ids.
Proxy::Impl::Calls::iterator Proxy::Impl::callOf(const Message& reply) {
  if (find(reply, "id") == nullptr) {
    if (replies_ == Replies::kWithIds) {
      return calls_.end();
    }
    replies_ = Replies::kPlain;
    return calls_.begin();
  }
  const auto id = get<std::uint64_t>(reply, "id");
  const auto found = id.has_value() ? calls_.find(*id) : calls_.end();
  if (replies_ != Replies::kWithIds && found != calls_.end()) {
    replies_ = Replies::kWithIds;
    forgetTimedOut(found->first);
  }
  return found;
}

/// Nobody needs to know their places any more.
void Proxy::Impl::forgetTimedOut(std::uint64_t except) {
  for (auto at = calls_.begin(); at != calls_.end();) {
    at = at->second.hasTimedOut && at->first != except ? calls_.erase(at) : std::next(at);
  }
}

void Proxy::Impl::takeEvent(const Message& event) {
  const auto topic = get<std::string>(event, "topic");
  const auto found = topic.has_value() ? subscriptions_.find(*topic) : subscriptions_.end();
  if (found == subscriptions_.end()) {
    TOVIK_SERVICE_LOG(1, name_ << ": an event of no topic that is followed is dropped");
    return;
  }
  if (const auto handler = found->second.handler) {  // a copy: it may unsubscribe
    handler(event);
  }
}

// --- ends without a reply ---

void Proxy::Impl::wakeAt(Clock::time_point time) {
  if (time < wake_ && !isClosed_) {
    wake_ = time;
    limits_.arm(Seconds(time - Clock::now()).count());
  }
}

void Proxy::Impl::expire() {
  const auto self = shared_from_this();
  wake_ = Clock::time_point::max();
  const auto now = Clock::now();
  while (!deadlines_.empty() && deadlines_.begin()->first <= now) {
    const std::uint64_t id = deadlines_.begin()->second;
    deadlines_.erase(deadlines_.begin());
    timeOut(calls_.find(id));
  }
  if (!deadlines_.empty()) {
    wakeAt(deadlines_.begin()->first);
  }
  deliver();
}

void Proxy::Impl::timeOut(Calls::iterator late) {
  Call& call = late->second;
  const std::string why = isOpen() ? "no reply within " + shown(call.limit)
                                   : "not connected within " + shown(call.limit) + ": " + whyNot_;
  later(std::move(call.callback), ended(Outcome::kTimedOut, ETIMEDOUT, call.outgoing.subject, why));
  if (isOpen() && replies_ == Replies::kUnknown) {
    call.hasTimedOut = true;
    const auto silent = std::count_if(calls_.begin(), calls_.end(),
                                      [](const auto& each) { return each.second.hasTimedOut; });
    if (silent > kMostTimedOut) {
      shutDown("the server does not answer");
    }
    return;
  }
  if (isOpen() && replies_ == Replies::kPlain) {
    shutDown("a call timed out, and replies without ids could be mistaken");
  }
  calls_.erase(late);
}

/// All that have been sent; what still waits for a connection may go on doing so.
void Proxy::Impl::endSent(const std::string& reason) {
  for (auto at = calls_.begin(); at != calls_.end();) {
    Call& call = at->second;
    if (!call.outgoing.body.empty()) {
      ++at;
      continue;
    }
    if (!call.hasTimedOut) {
      deadlines_.erase({call.deadline, at->first});
      later(std::move(call.callback),
            ended(Outcome::kLost, ECONNRESET, call.outgoing.subject, "connection lost: " + reason));
    }
    at = calls_.erase(at);
  }
}

void Proxy::Impl::later(Callback callback, Outcome outcome) {
  if (callback) {
    ended_.push_back({std::move(callback), std::move(outcome)});
    wakeAt(Clock::now());
  }
}

/// Those that have ended by now; the alarm is set for what comes meanwhile, or is left by an
/// exception.
void Proxy::Impl::deliver() {
  for (auto count = ended_.size(); count > 0 && !ended_.empty(); --count) {
    Ended first = std::move(ended_.front());
    ended_.pop_front();
    if (!ended_.empty()) {
      wakeAt(Clock::now());
    }
    first.callback(std::move(first.outcome));
  }
}

// --- the face ---

Proxy::Proxy(const std::string& name, ProxyOptions options)
    : impl_(std::make_shared<Impl>(name, std::move(options))) {}

Proxy::~Proxy() {
  impl_->close();
}

void Proxy::call(const Message& message, Seconds limit, Callback callback) {
  impl_->call(message, limit, std::move(callback));
}

void Proxy::subscribe(const std::string& topic, EventHandler handler, Callback answered) {
  impl_->subscribe(topic, std::move(handler), std::move(answered));
}

void Proxy::unsubscribe(const std::string& topic) {
  impl_->unsubscribe(topic);
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
  return impl_->server();
}

}  // namespace Tovik
