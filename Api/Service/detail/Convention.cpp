#include "Api/Service/detail/Convention.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Api/Service/Object.h"
#include "Kelvo/Exception.h"

namespace Tovik::Convention {

std::optional<std::string> textOf(const rapidjson::Value& value) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  return value.Accept(writer) ? std::optional(std::string(buffer.GetString(), buffer.GetSize()))
                              : std::nullopt;
}

std::string quoted(std::string_view text) {
  const rapidjson::Value value(text.data(), static_cast<rapidjson::SizeType>(text.size()));
  return *textOf(value);
}

std::string joined(std::string head, std::string_view rest) {
  if (rest != "{}") {
    head += ',';
  }
  head += rest.substr(1);
  return head;
}

sockaddr_un addressOf(const std::string& name) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  constexpr std::size_t kLongest = sizeof address.sun_path - 2;  // a NUL before and behind it
  if (name.size() > kLongest || name.find('\0') != std::string::npos) {
    throw Kelvo::Exception("a server's name has at most 106 bytes, and no NUL", false);
  }
  name.copy(address.sun_path + 1, kLongest);
  return address;
}

OwnedFd::~OwnedFd() {
  if (fd_ >= 0) {
    ::close(fd_);
  }
}

Kelvo::Platform::RawDebugHandler& debugHandler() {
  static Kelvo::Platform::RawDebugHandler* const handler =
      Kelvo::Platform::_getRawDebugHandler("TovikService", false);
  return *handler;
}

}  // namespace Tovik::Convention
