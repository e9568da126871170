#pragma once

#include <functional>
#include <memory>
#include <unordered_set>

#include "../../Kelvo/Platform/FdEventHandler.h"
#include "../../Kelvo/Ptr.h"
#include "../../Kelvo/String.h"
#include "Connection.h"
#include "Export.h"
#include "Types.h"

namespace Tovik {

/// The listening end: accepts clients under a name, has each judged by its kernel credentials,
/// keeps the admitted ones and broadcasts notifications to those that have subscribed.
///
/// The application owns it. It lives on the event loop of the thread that makes it and is used on
/// that thread only; the loop's thread must return to the loop soon, since no more than a handful
/// of clients wait in the backlog of 5 and the others block in their connect.
///
/// One client is accepted per readable event. Credentials are those of the process that connected,
/// at the time it did; a refused client is closed before a byte of it is read. Failures here are
/// logged and the server goes on. What the validator throws, or `std::bad_function_call` if it is
/// empty, leaves through the event loop, and that client's descriptor stays open.
///
/// A connection that has died stays in the set until the next client comes or `freeDeadConnections`
/// is called. Any callback may destroy the server, a handler of its own connections included; only
/// the validator may not, nor a turn of the loop inside it. The listening socket is not
/// close-on-exec: a child that keeps it keeps the name taken.
class TOVIK_API Server : public Kelvo::Platform::FdEventHandler {
 public:
  /// Gets the messages of every connection, as Connection describes. Each connection has a copy of
  /// its own, which is destroyed with it.
  using Handler = Connection::Handler;
  /// Judges a client by its process id, user id and group id; true admits it. A process id may have
  /// been reused by the time it is looked at, so decide by the other two.
  using Validator = std::function<bool(int pid, unsigned uid, unsigned gid)>;

  /// Listens under `name`, of at most 106 bytes; a longer one ends the process. The handler gets
  /// each connection's messages, as Connection describes.
  /// @throws SocketException if the socket cannot be set up, for example because the name is taken.
  Server(const Kelvo::String& name, Handler handler, Validator validator);
  ~Server() override;

  /// Sends `msg` to every client that has subscribed, in no particular order.
  void notifyClients(const Message& msg);

  /// Drops the connections that have died. It looks at each connection.
  void freeDeadConnections();

  // The steps of the server's work, which the constructor and the event loop take.

  /// A bound, listening socket, or minus the errno value.
  int createSocket(const Kelvo::String& name);
  /// Accepts one client and admits or refuses it.
  void readFdEvent(int fd) override;
  /// Never asked for; does nothing.
  void writeFdEvent(int fd) override;
  /// The validator's word on the client at `fd`; false if its credentials cannot be read.
  bool validateConnection(int fd) const;

 private:
  Handler handler_;
  Kelvo::Ptr<Kelvo::Platform::FdControl> fdControl_;  // knows the listening descriptor
  Validator validator_;
  std::unordered_set<std::shared_ptr<Connection>> connections_;
};

}  // namespace Tovik
