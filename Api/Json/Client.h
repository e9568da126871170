#pragma once

#include <functional>

#include "../../Kelvo/Platform/TimeoutHandler.h"
#include "../../Kelvo/Ptr.h"
#include "../../Kelvo/String.h"
#include "Async.h"
#include "Export.h"
#include "Types.h"

namespace Tovik {

/// The blocking client: one connection to a server, for one thread at a time, without an event
/// loop. It is connected when its construction returns and closed for good by `closeSocket`.
///
/// Calls block without a time limit: construction while the server's backlog is full, the waits
/// until the server sends or closes. The next record counts as the answer to a call, whatever it
/// is; so make one call at a time, and never on a connection that is subscribed to notifications,
/// which gets no replies. The library does nothing about SIGPIPE: what the system raises for a
/// write to a server that is gone is the process's to ignore.
///
/// A connection that closes with replies unread loses records that were written: the server's next
/// read fails, and what it had not read by then is gone. Read the last reply before closing.
class TOVIK_API Client {
 public:
  /// Connects to the server of that name (at most 106 bytes; a longer one ends the process).
  /// @throws SocketException if it cannot, for example because no server listens.
  explicit Client(const Kelvo::String& name);
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;
  virtual ~Client();

  /// Closes the connection. Harmless on a closed one.
  void closeSocket();

  /// Sends `msg` and, if asked, waits for the reply.
  /// @return the reply's status (0 to 2147483647); 0 if not asked to wait; -1 if the client is
  /// closed, the message's parsing had failed, the write failed or the answer was no valid reply.
  /// @throws SocketException as `waitForMsg` does.
  int sendMsg(const Message& msg, bool waitForAck) const;

  /// Waits for the next record. The caller tests the result's `HasParseError()`.
  /// @throws SocketException if reading fails (EBADF's text on a closed client), or with EPIPE's
  /// text if the server closed the connection.
  Message waitForMsg() const;

  /// Waits for the next record and takes it as a reply. An answer whose root is no object, or whose
  /// "type" is no string, ends the process by assertion.
  /// @return its status (0 to 2147483647), or -1 if it is no valid reply.
  /// @throws SocketException as `waitForMsg` does.
  int waitAck() const;

 private:
  int fd_ = -1;                                // also once closed
  [[maybe_unused]] const int readBufferSize_;  // part of the object's layout
};

/// The client for the event loop: connects by itself, and again one interval after each loss or
/// failed attempt, without end; while connected it stays connected. What it does not do is resend:
/// payloads that wait are dropped at a loss, while those queued before the first connection, or
/// between two, go out with the next message sent after connecting.
///
/// It lives on the event loop of the thread that makes it, and is used on that thread only. Both
/// handlers run there and may send, arm, attach; they may not destroy the client they run for
/// (another object's callback may). An empty handler is a mistake that shows as
/// `std::bad_function_call` out of the loop.
///
/// Connecting blocks while the server's backlog of 5 is full, until the server accepts. A server on
/// the same loop accepts between two expiries of timers, so that many clients may be made next to
/// it. Two cases remain that wait for ever: more than six calls of `timeout()` by hand in one
/// callback, and hundreds of other descriptors that are always ready, since the loop takes turns
/// among them. There, give the server a loop, and a thread, of its own.
///
/// A loss is seen by overriding `terminateConnection`; call this class's version first. It also
/// runs before each successful connection and after each failed one.
class TOVIK_API AsyncClient : public Kelvo::Platform::TimeoutHandler, public AsyncSender {
 public:
  /// Gets every well-formed message: replies, notifications and others alike.
  using MessageHandler = std::function<void(AsyncClient&, const Message&)>;
  /// Runs after each successful connection; the place to subscribe.
  using ConnectHandler = std::function<void(AsyncClient&)>;

  /// The first attempt happens on the loop's next turn. `reconnectInterval` is in seconds.
  AsyncClient(const Kelvo::String& name, MessageHandler messageHandler,
              ConnectHandler connectHandler, int reconnectInterval);
  ~AsyncClient() override;

  /// One attempt to connect, now. Called by the timer; called by hand, it replaces a connection
  /// that is still open.
  void timeout() override;

  void readFdEvent(int fd) override;

  /// Ends the connection, if any, and arms the timer for the next attempt.
  void terminateConnection() override;

 private:
  const Kelvo::String socketName_;
  MessageHandler messageHandler_;
  ConnectHandler connectHandler_;
  Kelvo::Ptr<Kelvo::Platform::Timer> timer_;
  const int reconnectInterval_;
};

}  // namespace Tovik
