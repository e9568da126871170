#pragma once

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cstring>
#include <stdexcept>

// The payloads and the JSON work that every contestant does, with RapidJSON's default settings:
// the client serialises its request, the server parses it and serialises a reply that it builds,
// the client parses the reply and checks it. Nothing is kept from one message to the next.

namespace Bench {

constexpr char kRequest[] =
    R"({"command":"move","axis":2,"position":1250,"speed":300,"wanted":"status","status":7,)"
    R"("remark":"as agreed in the morning"})";
constexpr char kNote[] =
    R"({"command":"move","axis":2,"position":1250,"speed":300,"wanted":"nothing","status":7,)"
    R"("remark":"as agreed in the morning"})";
constexpr char kTrigger[] = R"({"command":"tell","wanted":"broadcast","status":0})";
constexpr char kSubscription[] = R"({"command":"set","notification":true})";
constexpr char kNews[] =
    R"({"news":"moved","axis":2,"position":1250,"speed":300,"remark":"as agreed in the morning"})";

enum class Wanted { kStatus, kNothing, kBroadcast };

struct Request {
  Wanted wanted;
  unsigned status;
};

/// What a server makes of a parsed request.
inline Request understand(const rapidjson::Value& message) {
  const auto wanted = message.FindMember("wanted");
  const auto status = message.FindMember("status");
  if (wanted == message.MemberEnd() || !wanted->value.IsString() || status == message.MemberEnd() ||
      !status->value.IsUint()) {
    throw std::runtime_error("a request of the wrong shape");
  }
  switch (wanted->value.GetString()[0]) {
    case 's':
      return {Wanted::kStatus, status->value.GetUint()};
    case 'n':
      return {Wanted::kNothing, 0};
    default:
      return {Wanted::kBroadcast, status->value.GetUint()};
  }
}

template <class Document = rapidjson::Document>
Document parsed(const char* text) {
  Document message;
  if (message.Parse(text).HasParseError()) {
    throw std::runtime_error("a text that is not JSON");
  }
  return message;
}

inline void serialise(const rapidjson::Document& message, rapidjson::StringBuffer& out) {
  rapidjson::Writer<rapidjson::StringBuffer> writer(out);
  message.Accept(writer);
}

/// {"type":"reply","status":N}
inline void serialiseReply(unsigned status, rapidjson::StringBuffer& out) {
  rapidjson::Document reply;
  reply.SetObject();
  reply.AddMember("type", "reply", reply.GetAllocator());
  reply.AddMember("status", status, reply.GetAllocator());
  serialise(reply, out);
}

/// The client's end: checks a reply, and gives its status.
inline unsigned statusOf(const rapidjson::Value& reply) {
  const auto type = reply.FindMember("type");
  const auto status = reply.FindMember("status");
  if (type == reply.MemberEnd() || status == reply.MemberEnd() || !status->value.IsUint() ||
      std::strcmp(type->value.GetString(), "reply") != 0) {
    throw std::runtime_error("an answer that is no reply");
  }
  return status->value.GetUint();
}

/// The status that `kRequest` asks for.
constexpr unsigned kExpectedStatus = 7;

inline void expectStatus(unsigned status) {
  if (status != kExpectedStatus) {
    throw std::runtime_error("a reply with the wrong status");
  }
}

}  // namespace Bench
