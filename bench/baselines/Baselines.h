#pragma once

#include <string>

#include "bench/support/Driven.h"
#include "bench/support/Raw.h"
#include "bench/support/Work.h"

namespace Bench {

// Roles in sources of their own. Names are those of abstract sockets.

void serveEpoll(const std::string& name);
void driveCrowd(const std::string& name);  // many raw clients, of that server or of the library

inline void writeText(int fd, const rapidjson::StringBuffer& text) {
  writeRecord(fd, {text.GetString(), text.GetSize()});
}

inline void writeMessage(int fd, const rapidjson::Document& message) {
  rapidjson::StringBuffer text;
  serialise(message, text);
  writeText(fd, text);
}

inline void writeReply(int fd, unsigned status) {
  rapidjson::StringBuffer text;
  serialiseReply(status, text);
  writeText(fd, text);
}

}  // namespace Bench
