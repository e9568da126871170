#include "tool/Lines.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Kelvo/Exception.h"
#include "tool/Verb.h"

namespace tool {

namespace {

constexpr std::size_t kLongest = 1 << 20;  // bytes of a line

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
  auto found = line();
  while (found && found->find_first_not_of(" \t\r") == std::string::npos) {
    found = line();
  }
  return found;
}

std::optional<std::string> Lines::line() {
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

}  // namespace tool
