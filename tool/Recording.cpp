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
  Object object;
  object.add("time", timestamp())
      .add("direction", record.direction == Direction::kToServer ? kToServerText : kToClientText)
      .add("connection", record.connection)
      .add("pid", record.pid)
      .add("uid", record.uid);
  isUtf8(record.text) ? object.add("text", record.text) : object.add("hex", toHex(record.text));
  if (record.refused) {
    object.add("refused", true);
  }
  return object.text();
}

bool parseRecording(std::string_view line, Record& record) {
  const Lint judged = lint(line);
  const auto direction = textOf(memberOf(judged.message, "direction"));
  const auto& connection = memberOf(judged.message, "connection");
  const auto& text = memberOf(judged.message, "text");
  if ((direction != kToServerText && direction != kToClientText) || !connection.IsUint64()) {
    return false;
  }
  record.direction = direction == kToServerText ? Direction::kToServer : Direction::kToClient;
  record.connection = connection.GetUint64();
  record.refused = memberOf(judged.message, "refused").IsTrue();
  record.text = textOf(text);
  return (text.IsString() || fromHex(textOf(memberOf(judged.message, "hex")), record.text)) &&
         !record.text.empty();
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
  if (output_.json() || fd_ >= 0) {
    const std::string json = recordingOf(record);
    append(json + "\n");
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
