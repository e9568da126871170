#pragma once

#include <rapidjson/document.h>

#include "../../Kelvo/Exception.h"
#include "../../Kelvo/String.h"
#include "Export.h"
#include "Layout.h"

/// Servers, their connections, clients and messages.
namespace Tovik {

/// One message: a JSON document, built and read with RapidJSON's own interface. It moves but does
/// not copy. A message whose parsing failed (`HasParseError()`) is refused by everything that
/// sends.
///
/// On the wire a message is its compact text, one record of the socket, and must stay below 4095
/// bytes; senders do not check that. The library itself writes or understands two kinds:
///
///     {"type":"reply","status":N}                  server to client, see Connection::acknowledge
///     {"command":"set","notification":true|false}  client to server, see Connection
///
/// All others are the application's. A root that is an object is expected of every message that
/// goes to a server: see Connection for what happens otherwise.
class Message : public rapidjson::Document {
 public:
  using rapidjson::Document::Document;

  /// The message's text: compact, as it goes on the wire, or indented by 4 spaces a level, for
  /// logs. A value that JSON cannot express (NaN, infinity) ends the text where it stands; if it is
  /// the root the text is empty, and sent, it would read as the end of the connection. How deep the
  /// message nests does not matter to the stack; RapidJSON's own `Accept`, `CopyFrom` and `==`
  /// recurse. An indented text grows with the square of that depth. Safe on any thread.
  TOVIK_API static Kelvo::String toStr(const Message& msg, bool pretty);
};

/// A system call failed; `what()` is the system's text for its error number. The number itself is
/// not kept.
class TOVIK_API SocketException : public Kelvo::Exception {
 public:
  /// Takes an error number, as `errno` holds it.
  explicit SocketException(int errnum);
  ~SocketException() override;

  /// The name of this class, "Tovik::SocketException".
  const char* name() const noexcept override;
};

}  // namespace Tovik
