#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cstring>
#include <string>

#include "Api/Json/Types.h"

namespace Tovik {

namespace {

template <class Writer>
Kelvo::String write(const Message& msg) {
  rapidjson::StringBuffer buffer;
  Writer writer(buffer);
  msg.Accept(writer);
  return std::string(buffer.GetString(), buffer.GetSize());
}

}  // namespace

Kelvo::String Message::toStr(const Message& msg, bool pretty) {
  return pretty ? write<rapidjson::PrettyWriter<rapidjson::StringBuffer>>(msg)
                : write<rapidjson::Writer<rapidjson::StringBuffer>>(msg);
}

SocketException::SocketException(int errnum) : Kelvo::Exception(std::strerror(errnum), true) {}

SocketException::~SocketException() = default;

const char* SocketException::name() const noexcept {
  return "Tovik::SocketException";
}

}  // namespace Tovik
