#include "tool/Recording.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tool/Lines.h"
#include "tool/Output.h"
#include "tool/Report.h"

namespace tool {

namespace {

constexpr const char* kToServerText = "to-server";
constexpr const char* kToClientText = "to-client";

std::string toHex(const std::string& bytes) {
  static const char digits[] = "0123456789abcdef";
  std::string hex;
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    hex += {digits[byte >> 4U], digits[byte & 15U]};
  }
  return hex;
}

bool fromHex(std::string_view hex, std::string& bytes) {
  if (hex.size() % 2 != 0 || hex.find_first_not_of("0123456789abcdef") != std::string::npos) {
    return false;
  }
  for (std::size_t i = 0; i < hex.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16));
  }
  return true;
}

const rapidjson::Value* member(const Tovik::Message& object, const char* name) {
  const auto found = object.FindMember(name);
  return found == object.MemberEnd() ? nullptr : &found->value;
}

std::string_view viewOf(const rapidjson::Value* value) {
  return value != nullptr && value->IsString()
             ? std::string_view(value->GetString(), value->GetStringLength())
             : std::string_view();
}

}  // namespace

Tovik::Message recordingOf(const Record& record) {
  Tovik::Message message;
  message.SetObject();
  addString(message, "time", timestamp());
  addString(message, "direction",
            record.direction == Direction::kToServer ? kToServerText : kToClientText);
  addNumber(message, "connection", record.connection);
  addNumber(message, "pid", record.pid);
  addNumber(message, "uid", record.uid);
  const bool text = isUtf8(record.text);
  addString(message, text ? "text" : "hex", text ? record.text : toHex(record.text));
  if (record.refused) {
    addNumber(message, "refused", true);
  }
  return message;
}

Recorder::Recorder(const std::string& file) : file_(file) {
  if (file.empty()) {
    return;
  }
  fd_ = ::open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (fd_ < 0) {
    throw Failure(Exit::kUsage, inQuotes(file) + " cannot be written: " + std::strerror(errno) +
                                    "; name another file for --record.");
  }
}

Recorder::~Recorder() {
  if (fd_ >= 0) {
    ::close(fd_);
  }
}

void Recorder::write(const Tovik::Message& recording) {
  if (fd_ < 0) {
    return;
  }
  const std::string line = std::string(Tovik::Message::toStr(recording, false).data()) + "\n";
  if (::write(fd_, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
    throw Failure(Exit::kLost, inQuotes(file_) + " cannot be written: " + std::strerror(errno) +
                                   "; make room, or name another file for --record.");
  }
}

bool parseRecording(std::string_view line, Record& record) {
  const Lint judged = lint(line);
  if (!judged.isObject()) {
    return false;
  }
  const Tovik::Message message = messageFrom(judged.compact);
  const auto direction = viewOf(member(message, "direction"));
  const auto* connection = member(message, "connection");
  const auto* text = member(message, "text");
  const auto* refused = member(message, "refused");
  if ((direction != kToServerText && direction != kToClientText) || connection == nullptr ||
      !connection->IsUint64()) {
    return false;
  }
  record.direction = direction == kToServerText ? Direction::kToServer : Direction::kToClient;
  record.connection = connection->GetUint64();
  record.refused = refused != nullptr && refused->IsTrue();
  record.text = viewOf(text);
  return text != nullptr
             ? text->IsString() && !record.text.empty()
             : fromHex(viewOf(member(message, "hex")), record.text) && !record.text.empty();
}

std::vector<Record> readRecording(const std::string& file) {
  std::vector<Record> records;
  const int fd = openedForReading(file);
  if (fd != STDIN_FILENO) {
    ::fcntl(fd, F_SETFL, 0);  // a pipe is waited for: nothing else happens yet
  }
  const auto read = [fd](char* buffer, std::size_t size) { return ::read(fd, buffer, size); };
  forEachLine(read, [&](const std::string& line, std::size_t number) {
    Record record;
    if (!parseRecording(line, record)) {
      throw Failure(Exit::kUsage, "line " + std::to_string(number) + " of " + inQuotes(file) +
                                      " is no record of a relay, and nothing was sent; mend it, "
                                      "or make a recording with --record.");
    }
    records.push_back(std::move(record));
  });
  if (fd != STDIN_FILENO) {
    ::close(fd);
  }
  if (records.empty()) {
    throw Failure(Exit::kUsage, inQuotes(file) +
                                    " holds no record of a relay; make a recording "
                                    "with --record.");
  }
  return records;
}

}  // namespace tool
