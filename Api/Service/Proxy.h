#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "../Json/Export.h"
#include "../Json/Types.h"
#include "Object.h"

/// @file
/// The caller's side of a service.
///
///     Tovik::Proxy lamp("lamp");
///     lamp.subscribe("state", [](const Tovik::Message& event) { ... });
///     lamp.call(Tovik::object("command", "switch", "on", true), 500ms,
///               [](Tovik::Outcome outcome) { if (!outcome) std::cerr << outcome.error; });
///
/// and, for programs without an event loop,
///
///     auto outcome = Tovik::call("lamp", Tovik::object("command", "switch", "on", true), 500ms);

namespace Tovik {

/// How a call went: one of its replies, or why there is none.
struct Outcome {
  /// How it ended.
  enum End {
    kReply,     ///< The server has answered; `status` is its word.
    kTimedOut,  ///< 110. The call may have been carried out all the same.
    kLost,      ///< 104. The connection has ended meanwhile; likewise.
    kRefused,   ///< Never sent: the message is no object or has an id (22), too many wait (16),
                ///< or, for the blocking `call`, there is no server (111, or another errno).
    kTooLong,   ///< 90. Never sent; or, where parts are collected, they were too many.
  };

  /// A reply, or what came instead of one.
  End end = kReply;
  /// 0 is success; others are errno numbers, or the application's own from 1000 on.
  unsigned status = 0;
  /// For people, with the server's and the command's name in front; empty with status 0.
  std::string error;
  /// Further replies to this call follow.
  bool more = false;
  /// The whole reply.
  Message reply;
  /// The replies before, where they are collected: with `co_await`, and with the blocking `call`.
  std::vector<Message> earlier;

  /// True if the call has succeeded.
  explicit operator bool() const noexcept { return status == 0; }

  /// The reply's result; null if it has none.
  const rapidjson::Value* result() const { return find(reply, "result"); }
  /// The result as a `T`; nothing if it has none or it cannot be read so.
  template <class T>
  std::optional<T> get() const {
    return Tovik::get<T>(reply, "result");
  }
};

/// Who is at the other end, as the kernel noted it when the server began to listen.
struct Credentials {
  int pid;       ///< The process; it may be gone and its number reused.
  unsigned uid;  ///< Its user.
  unsigned gid;  ///< Its group.
};

/// How a proxy connects, and its bounds.
struct ProxyOptions {
  /// Seconds from a loss, or a failed attempt to connect, to the next attempt.
  double reconnectInterval = 1;
  /// Each wait is longer by a random part of this many seconds, so that the clients of a server
  /// that restarts do not all come at the same moment.
  double jitter = 0;
  /// Judges the server by its process id, user id and group id; empty: any. A server that is
  /// refused is treated as if it were not there.
  std::function<bool(int pid, unsigned uid, unsigned gid)> accepts;
  /// Calls that wait to be sent; those beyond are refused.
  /// @{
  std::size_t queuedRecords = 10000;
  std::size_t queuedBytes = std::size_t{4} * 1024 * 1024;
  /// @}
};

/// A service, seen from a client that lives in an event loop. It connects by itself, again after
/// each loss, and subscribes again. It never blocks.
///
/// It lives on the event loop of the thread that makes it and is used on that thread only. All
/// callbacks run in the loop, never inside the function that they were given to, and may do
/// anything, destroying the proxy included. What they throw leaves through the loop.
///
/// A plain server can be called, too. Its replies have no ids and so belong to the calls in their
/// order; when one of those times out, the connection is made again, so that a late reply is not
/// taken for another call's.
class TOVIK_API Proxy {
 public:
  /// A time limit; fractions count.
  using Seconds = std::chrono::duration<double>;
  /// Gets how a call went.
  using Callback = std::function<void(Outcome)>;
  /// Gets an event, or another message, as it came over the wire.
  using EventHandler = std::function<void(const Message&)>;
  class Pending;

  /// The first attempt to connect happens on the loop's next turn.
  /// @throws Kelvo::Exception if the name has more than 106 bytes or holds a NUL.
  explicit Proxy(const std::string& name, ProxyOptions options = {});
  Proxy(const Proxy&) = delete;
  Proxy& operator=(const Proxy&) = delete;
  /// Calls in flight end as lost, inside this destructor; so what their callbacks use has to be
  /// there still.
  ~Proxy();

  /// Calls the service. The message is an object with a command, without an id, of at most 4071
  /// bytes. Without a connection it waits for one. It is sent once at most. The callback gets its
  /// outcome: once, or once for each part while `more` is true and once at the end. The limit is
  /// for all of that.
  void call(const Message& message, Seconds limit, Callback callback);

  /// The same for coroutines: `co_await proxy.call(message, 500ms)` is the outcome.
  Pending call(const Message& message, Seconds limit);

  /// Follows a topic, now and after each reconnection; the handler gets its events as they come
  /// over the wire. A second handler for the same topic replaces the first. `answered` gets the
  /// outcome each time the topic was asked for: it is the way to learn that there is none of that
  /// name.
  void subscribe(const std::string& topic, EventHandler handler, Callback answered = {});
  /// Follows the topic no longer. Nothing of it is handed on after this returns.
  void unsubscribe(const std::string& topic);

  /// Called after each connection, once the subscriptions have been asked for, and after each loss,
  /// with the reason.
  /// @{
  void onConnect(std::function<void()> handler);
  void onLoss(std::function<void(const std::string& reason)> handler);
  /// @}

  /// Gets what is neither a reply nor an event: a plain server's own messages.
  void onMessage(EventHandler handler);

  /// True while there is a connection to an accepted server.
  bool isConnected() const noexcept;
  /// Who serves; nothing while there is no connection.
  std::optional<Credentials> server() const;

 private:
  class TOVIK_INTERNAL Impl;
  std::shared_ptr<Impl> impl_;
};

/// Calls a service, or a plain server, and waits for the answer without an event loop. The limit is
/// for everything: connecting, waiting in the backlog, sending, all parts of the answer.
/// @throws Kelvo::Exception if the name has more than 106 bytes or holds a NUL.
TOVIK_API Outcome call(const std::string& name, const Message& message, Proxy::Seconds limit);

/// A callback for `Proxy::call` that hands on one outcome, with all parts of the answer in it.
TOVIK_API Proxy::Callback collecting(Proxy::Callback callback);

/// A call that a coroutine waits for.
class [[nodiscard]] Proxy::Pending {
 public:
  /// @cond INTERNAL
  Pending(Proxy& proxy, const Message& message, Seconds limit) : proxy_(&proxy), limit_(limit) {
    message_.CopyFrom(message, message_.GetAllocator());
  }

  bool await_ready() const noexcept { return false; }
  template <class Handle>
  void await_suspend(Handle coroutine) {
    proxy_->call(message_, limit_, collecting([this, coroutine](Outcome outcome) mutable {
                   outcome_ = std::move(outcome);
                   coroutine.resume();  // which destroys this
                 }));
  }
  Outcome await_resume() { return std::move(outcome_); }
  /// @endcond

 private:
  Proxy* proxy_;
  Message message_;
  Seconds limit_;
  Outcome outcome_;
};

inline Proxy::Pending Proxy::call(const Message& message, Seconds limit) {
  return {*this, message, limit};
}

}  // namespace Tovik
