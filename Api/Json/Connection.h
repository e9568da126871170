#pragma once

#include <deque>
#include <functional>

#include "../../Kelvo/String.h"
#include "Async.h"
#include "Export.h"
#include "Types.h"

namespace Tovik {

/// The server's end of one admitted client. The server makes it, shares ownership of it, and drops
/// it after it has died; the application meets it in its message handler.
///
/// Each record that arrives is parsed as one message. The notification switch, an object with
/// "command" = "set" and a boolean "notification", subscribes the client or ends its subscription
/// and is consumed here; everything else goes to the handler. A payload that is not JSON is
/// logged and dropped, and the connection goes on. JSON of the wrong shape (a root that is no
/// object, or a "command" that is no string next to a "notification") ends the process by
/// assertion: admit trusted peers only.
///
/// A failed or empty read ends the connection: it is dead from then on, sends nothing, and stays in
/// the server's set until that frees it. The handler may use the connection freely, turn the loop,
/// free the server's dead connections and destroy the server: a connection whose handler the loop
/// has called is destroyed after that handler has returned, not before.
class TOVIK_API Connection : public AsyncSender {
 public:
  /// Gets every message that is no notification switch.
  using Handler = std::function<void(Connection&, const Message&)>;

  /// Attaches `fd`, an accepted, non-blocking socket, to this thread's event loop and owns it,
  /// unless this throws.
  Connection(int fd, Handler handler);
  ~Connection() override;

  /// Answers the client with {"type":"reply","status":N}. Does nothing on a dead connection, nor
  /// while the client is subscribed: a subscribed client gets notifications and no replies. A
  /// blocking client refuses a status above 2147483647.
  void acknowledge(unsigned status);

  /// Sends any message to this client. False, and nothing is sent, if its parsing had failed.
  bool sendMsg(const Message& msg);

  void readFdEvent(int fd) override;

  /// Applies the notification switch. True if `msg` is one, well-formed or not, and is not for the
  /// handler. A switch is acknowledged with status 0 unless the client was subscribed before.
  bool handleNotifMsg(const Message& msg);

 private:
  friend class Server;  // reads notification_

  bool notification_ = false;
  Handler handler_;
  std::deque<Kelvo::String> extraQueue_;  // part of the object's layout; not used
};

}  // namespace Tovik
