#pragma once

#include <map>
#include <string>

#include "bench/support/Driven.h"
#include "bench/support/Work.h"

// The JSON work in the shape in which messaging systems take it: texts in, texts out.

namespace Bench {

/// The reply's text, or none if the request wants none.
inline std::string answerTo(const char* text) {
  const rapidjson::Document message = parsed(text);
  const Request request = understand(message);
  if (request.wanted == Wanted::kNothing) {
    return {};
  }
  rapidjson::StringBuffer reply;
  serialiseReply(request.status, reply);
  return {reply.GetString(), reply.GetSize()};
}

inline std::string textOf(const rapidjson::Document& message) {
  rapidjson::StringBuffer text;
  serialise(message, text);
  return {text.GetString(), text.GetSize()};
}

/// A peer's client, which serialises the request each time and checks each reply.
class TextClient : public Client {
 protected:
  std::string requestText() const { return textOf(request_); }
  std::string noteText() const { return textOf(note_); }
  static void check(const std::string& reply) { expectStatus(statusOf(parsed(reply.c_str()))); }

 private:
  const rapidjson::Document request_ = parsed(kRequest);
  const rapidjson::Document note_ = parsed(kNote);
};

/// The roles of a peer's program: a server, a client, and those that only some have.
template <class Kind>
int runPeer(int argc, char** argv, const Role& serve, std::map<std::string, Role> more = {}) {
  more["serve"] = serve;
  more["drive"] = driveClient<Kind>;
  return runAs(argc, argv, more);
}

}  // namespace Bench
