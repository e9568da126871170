#pragma once

#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>

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
  std::string request() const { return textOf(request_); }
  std::string note() const { return textOf(note_); }
  static void check(const std::string& reply) { expectStatus(statusOf(reply.c_str())); }

 private:
  const rapidjson::Document request_ = parsed(kRequest);
  const rapidjson::Document note_ = parsed(kNote);
};

/// What the server publishes, serialised again each time.
inline std::string newsText() {
  static const rapidjson::Document news = parsed(kNews);
  return textOf(news);
}

inline bool wantsBroadcast(const std::string& text) {
  return text == kTrigger;
}

/// Many subscribers of a peer's server in one process.
class TextCrowd {
 public:
  TextCrowd() = default;
  TextCrowd(const TextCrowd&) = delete;
  TextCrowd& operator=(const TextCrowd&) = delete;
  virtual ~TextCrowd() = default;

  void subscribe(unsigned count) {
    for (unsigned i = 0; i < count; ++i) {
      join();
    }
    for (unsigned member = 0; member < count; ++member) {
      do {  // a subscription takes effect some time after it was made
        tell();
      } while (!hear(member, std::chrono::milliseconds(20)));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    for (unsigned member = 0; member < count; ++member) {
      while (hear(member, std::chrono::milliseconds(0))) {
      }
    }
    members_ = count;
  }

  /// That number of broadcasts, one at a time, each received by every member.
  void broadcast(unsigned count) {
    for (unsigned i = 0; i < count; ++i) {
      tell();
      for (unsigned member = 0; member < members_; ++member) {
        if (!hear(member, std::chrono::seconds(10))) {
          throw std::runtime_error("news that did not arrive");
        }
      }
    }
  }

 private:
  virtual void join() = 0;
  virtual void tell() = 0;
  virtual bool hear(unsigned member, std::chrono::milliseconds patience) = 0;

  unsigned members_ = 0;
};

template <class Kind>
void driveCrowd(const std::string& address) {
  Kind crowd(address);
  obey({{"subscribe", [&](unsigned count) { return crowd.subscribe(count), Samples{}; }},
        {"broadcast", [&](unsigned count) { return crowd.broadcast(count), Samples{}; }}});
}

/// The roles of a peer's program: a server, a client, and those that only some have.
template <class Kind>
int runPeer(int argc, char** argv, const Role& serve, std::map<std::string, Role> more = {}) {
  more["serve"] = serve;
  more["drive"] = [](const std::string& address) {
    Kind client(address);
    obey(client);
  };
  return runAs(argc, argv, more);
}

}  // namespace Bench
