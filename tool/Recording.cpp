#include "tool/Recording.h"

#include <fcntl.h>
#include <sys/stat.h>
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
  addMember(message, "connection", record.connection);
  addMember(message, "pid", record.pid);
  addMember(message, "uid", record.uid);
  const bool text = isUtf8(record.text);
  addString(message, text ? "text" : "hex", text ? record.text : toHex(record.text));
  if (record.refused) {
    addMember(message, "refused", true);
  }
  return message;
}

Recorder::Recorder(const std::string& file) : file_(file) {
  if (file.empty()) {
    return;
  }
  fd_ = ::open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (fd_ < 0) {
    throw Failure(Exit::kUsage,
                  inQuotes(file) + " cannot be written: " + std::strerror(errno) + ".");
  }
}

Recorder::~Recorder() {
  if (fd_ >= 0) {
    ::close(fd_);
  }
}

/// Half a line would spoil the recording, so it is taken back.
void Recorder::write(const std::string& json) {
  const std::string line = json + "\n";
  std::string_view rest = line;
  while (fd_ >= 0 && !rest.empty()) {
    const auto written = ::write(fd_, rest.data(), rest.size());
    if (written >= 0) {
      rest.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno != EINTR) {
      const int error = errno;
      takeBack(line.size() - rest.size());
      throw Failure(Exit::kOutput,
                    inQuotes(file_) + " cannot be written: " + std::strerror(error) + ".");
    }
  }
}

void Recorder::takeBack(std::size_t bytes) const {
  struct stat status {};
  if (bytes > 0 && ::fstat(fd_, &status) == 0 && S_ISREG(status.st_mode)) {
    [[maybe_unused]] const int cut = ::ftruncate(fd_, status.st_size - static_cast<off_t>(bytes));
  }
}

void RecordLog::show(const Record& record) {
  if (output_.json() || recorder_.wanted()) {
    const std::string json = Tovik::Message::toStr(recordingOf(record), false).data();
    recorder_.write(json);
    if (output_.json()) {
      return output_.message(json);
    }
  }
  const bool toServer = record.direction == Direction::kToServer;
  const bool colour = output_.colour();
  output_.line((timestamps_ ? painted(timestamp(), "2", colour) + " " : "") +
               std::to_string(record.connection) + " " +
               painted(toServer ? "->" : "<-", toServer ? "36" : "35", colour) + " " +
               escaped(record.text) + (record.refused ? painted(" (refused)", "31", colour) : ""));
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
  forEachLine(
      read,
      [&](const std::string& line, std::size_t number) {
        Record record;
        if (!parseRecording(line, record)) {
          throw Failure(Exit::kUsage, "line " + std::to_string(number) + " of " + inQuotes(file) +
                                          " is no record of a relay; nothing was sent.");
        }
        records.push_back(std::move(record));
      },
      file);
  if (fd != STDIN_FILENO) {
    ::close(fd);
  }
  if (records.empty()) {
    throw Failure(Exit::kUsage, inQuotes(file) +
                                    " holds no record of a relay; 'tovik relay --record' makes "
                                    "some.");
  }
  return records;
}

}  // namespace tool
