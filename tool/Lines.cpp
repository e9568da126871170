#include "tool/Lines.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Kelvo/Exception.h"
#include "tool/Json.h"
#include "tool/Report.h"

namespace tool {

namespace {

constexpr std::size_t kLongest = 1 << 20;  // bytes of a line
constexpr std::size_t kLongestMessage = 1 << 16;

/// What cannot be read is no end of the input.
Failure unreadable(const std::string& file, int error) {
  return {Exit::kUsage, (file == "-" ? "standard input" : inQuotes(file)) +
                            " cannot be read: " + std::strerror(error) + "."};
}

int opened(const std::string& file) {
  const int fd = file == "-" ? STDIN_FILENO  // does not wait for the writer of a named pipe
                             : ::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) {
    throw unreadable(file, errno);
  }
  return fd;
}

}  // namespace

Lines::Lines(Run& run, const std::string& file, const char* hint)
    : run_(run), file_(file), fd_(opened(file)) {
  if (::isatty(fd_) != 0) {
    notice(hint);
  }
}

Lines::~Lines() {
  if (fd_ != STDIN_FILENO) {
    ::close(fd_);
  }
}

std::optional<std::string> Lines::next() {
  std::string line;
  do {
    const std::size_t end = buffer_.find('\n', at_);
    line.append(buffer_, at_, std::min(end, buffer_.size()) - at_);
    line.resize(std::min(line.size(), kLongest + 1));
    if (end != std::string::npos) {
      at_ = end + 1;
      ++number_;
      return line;
    }
  } while (fill());
  if (line.empty() || run_.ended()) {
    return std::nullopt;
  }
  ++number_;
  return line;
}

/// Reads what comes next, once all lines are handed out. False at the end.
bool Lines::fill() {
  at_ = 0;
  buffer_.assign(65536, '\0');
  while (true) {
    waitForInput();
    const auto length = run_.ended() ? 0 : ::read(fd_, buffer_.data(), buffer_.size());
    if (length >= 0) {
      buffer_.resize(static_cast<std::size_t>(length));
      return length > 0;
    }
    if (errno != EAGAIN && errno != EINTR) {
      throw unreadable(file_, errno);
    }
  }
}

void Lines::waitForInput() {
  bool ready = false;
  std::optional<Watch> watch;
  try {
    watch.emplace(fd_, [&ready] { ready = true; });
  } catch (const Kelvo::Exception&) {
    ready = true;  // a file: always ready, and nothing that the kernel watches
  }
  run_.until([&ready] { return ready; });
}

Messages::Messages(Run& run, const std::string& text, std::uint64_t copies)
    : run_(run), copies_(copies) {
  if (text != "-") {
    text_ = sendable(text, "the message");
    return;
  }
  struct stat status {};
  lines_.emplace(run_, text);
  if (::fstat(STDIN_FILENO, &status) == 0 && S_ISREG(status.st_mode)) {
    const off_t at = ::lseek(STDIN_FILENO, 0, SEEK_CUR);
    while (read()) {
    }
    ::lseek(STDIN_FILENO, at, SEEK_SET);
    lines_.emplace(run_, text);
  }
}

std::optional<std::string> Messages::next() {
  if (!lines_) {
    return copies_-- > 0 ? std::optional<std::string>(text_) : std::nullopt;
  }
  auto message = read();
  if (!message && handedOut_ == 0) {
    throw Failure(Exit::kUsage,
                  "there is no message to send; give one, or one on each line of standard input.");
  }
  ++handedOut_;
  return message;
}

std::optional<std::string> Messages::read() {
  std::string text;
  std::size_t number = 0;
  while (const auto line = lines_->next()) {
    if (text.empty() && isBlank(*line)) {
      continue;
    }
    number = text.empty() ? lines_->number() : number;
    text += (text.empty() ? "" : "\n") + *line;
    if (!lint(text).cutShort || text.size() > kLongestMessage) {
      break;
    }
  }
  if (text.empty()) {
    return std::nullopt;
  }
  const std::string before =
      handedOut_ == 0 ? "" : " (" + counted(handedOut_, "message") + " went out before)";
  return sendable(text, "line " + std::to_string(number) + " of the input" + before);
}

bool isBlank(std::string_view line) {
  return line.find_first_not_of(" \t\r") == std::string_view::npos;
}

}  // namespace tool
