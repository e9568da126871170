#include "tool/Recording.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tool/Json.h"
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

Failure unwritable(const std::string& file, int error) {
  return {Exit::kOutput, inQuotes(file) + " cannot be written: " + std::strerror(error) + "."};
}

}  // namespace

std::string recordingOf(const Record& record) {
  const bool isText = isUtf8(record.text);
  const auto object = Tovik::object(
      "time", timestamp(), "direction",
      record.direction == Direction::kToServer ? kToServerText : kToClientText, "connection",
      record.connection, "pid", record.pid, "uid", record.uid, "text", when(isText, record.text),
      "hex", when(!isText, toHex(record.text)), "refused", when(record.refused, true));
  return Tovik::Message::toStr(object, false).data();
}

bool parseRecording(std::string_view line, Record& record) {
  const Lint judged = lint(line);
  const auto direction = Tovik::get<std::string>(judged.message, "direction");
  const auto connection = Tovik::get<std::uint64_t>(judged.message, "connection");
  const auto text = Tovik::get<std::string>(judged.message, "text");
  const auto hex = Tovik::get<std::string>(judged.message, "hex");
  if ((direction != kToServerText && direction != kToClientText) || !connection) {
    return false;
  }
  record.direction = direction == kToServerText ? Direction::kToServer : Direction::kToClient;
  record.connection = *connection;
  record.refused = Tovik::get<bool>(judged.message, "refused") == true;
  record.text = text.value_or("");
  return (text || fromHex(hex.value_or(""), record.text)) && !record.text.empty();
}

RecordLog::RecordLog(const std::string& file, bool timestamps)
    : file_(file), timestamps_(timestamps) {
  if (!file.empty()) {
    fd_ = ::open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (fd_ < 0) {
      throw Failure(Exit::kUsage, unwritable(file, errno).what());
    }
  }
}

RecordLog::~RecordLog() {
  if (fd_ >= 0) {
    ::close(fd_);
  }
}

void RecordLog::show(const Record& record) {
  if (wantsJson() || fd_ >= 0) {
    const std::string json = recordingOf(record);
    append(json + "\n");
    if (wantsJson()) {
      return printJson(json);
    }
  }
  const bool toServer = record.direction == Direction::kToServer;
  printLine((timestamps_ ? painted(timestamp(), "2") + " " : "") +
            std::to_string(record.connection) + " " +
            painted(toServer ? "->" : "<-", toServer ? "36" : "35") + " " + escaped(record.text) +
            (record.refused ? painted(" (refused)", "31") : ""));
}

/// Half a line would spoil the recording, so it is taken back.
void RecordLog::append(const std::string& line) const {
  std::size_t done = 0;
  while (fd_ >= 0 && done < line.size()) {
    const auto written = ::write(fd_, line.data() + done, line.size() - done);
    if (written >= 0) {
      done += static_cast<std::size_t>(written);
    } else if (const int error = errno; error != EINTR) {
      struct stat status {};
      if (done > 0 && ::fstat(fd_, &status) == 0 && S_ISREG(status.st_mode)) {
        [[maybe_unused]] const int cut =
            ::ftruncate(fd_, status.st_size - static_cast<off_t>(done));
      }
      throw unwritable(file_, error);
    }
  }
}

}  // namespace tool
