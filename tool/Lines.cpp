#include "tool/Lines.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "Kelvo/Exception.h"

namespace tool {

namespace {

/// A file can be looked through before anything is sent; a pipe cannot.
void checkFile(int fd) {
  struct stat status {};
  if (::fstat(fd, &status) < 0 || !S_ISREG(status.st_mode)) {
    return;
  }
  off_t at = ::lseek(fd, 0, SEEK_CUR);
  forEachLine(
      [&](char* buffer, std::size_t size) {
        const auto length = ::pread(fd, buffer, size, at);
        at += std::max<ssize_t>(length, 0);
        return length;
      },
      [](const std::string& line, std::size_t number) {
        sendable(line, "line " + std::to_string(number) + " of the input");
      },
      "-");
}

/// What cannot be read is no end of the input.
Failure unreadable(const std::string& file, int error) {
  return {Exit::kUsage, (file == "-" ? "standard input" : inQuotes(file)) +
                            " cannot be read: " + std::strerror(error) + "."};
}

}  // namespace

std::optional<std::string> LineSplitter::next() {
  while (!atEnd()) {
    std::size_t end = buffer_.find('\n', at_);
    const bool whole = end != std::string::npos || ended_;
    end = std::min(end, buffer_.size());
    if (!whole && end - at_ <= kLongest) {
      break;
    }
    const bool skipped = std::exchange(skipping_, !whole);
    std::string line = buffer_.substr(at_, std::min(end - at_, kLongest + 1));
    at_ = std::min(end + 1, buffer_.size());
    if (!whole) {
      at_ = buffer_.size();
    }
    if (!skipped) {
      return line;
    }
  }
  buffer_.erase(0, std::exchange(at_, 0));
  return std::nullopt;
}

void forEachLine(const std::function<long(char*, std::size_t)>& read,
                 const std::function<void(const std::string&, std::size_t)>& take,
                 const std::string& file) {
  LineSplitter splitter;
  std::size_t number = 0;
  for (std::string chunk(65536, '\0'); !splitter.atEnd();) {
    const long length = read(chunk.data(), chunk.size());
    if (length > 0) {
      splitter.feed(std::string_view(chunk).substr(0, static_cast<std::size_t>(length)));
    } else if (length == 0) {
      splitter.end();
    } else if (errno != EINTR) {
      throw unreadable(file, errno);
    }
    while (const auto line = splitter.next()) {
      ++number;
      if (!isBlank(*line)) {
        take(*line, number);
      }
    }
  }
}

int openedForReading(const std::string& file) {
  if (file == "-") {
    return STDIN_FILENO;
  }
  const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);  // for named pipes
  if (fd < 0) {
    throw unreadable(file, errno);
  }
  return fd;
}

Lines::Lines(const std::string& file, Taker line, const char* hint)
    : file_(file),
      fd_(openedForReading(file)),
      line_(std::move(line)),
      control_(Kelvo::Platform::getFdControl(this)) {
  if (::isatty(fd_) != 0) {
    notice(hint);
  }
}

Lines::~Lines() {
  control_->detach();
  if (fd_ != STDIN_FILENO) {
    ::close(fd_);
  }
}

/// Hands out a line if there is one, else sees to it that there will be.
void Lines::step() {
  auto line = splitter_.next();
  if (line || splitter_.atEnd()) {
    number_ += line ? 1 : 0;
    return line_(std::move(line));
  }
  try {
    if (pollable_) {
      return control_->attach(fd_);
    }
  } catch (const Kelvo::Exception&) {
    pollable_ = false;  // a file: always ready, and nothing that the kernel watches
  }
  fill();
}

void Lines::readFdEvent(int /*fd*/) {
  control_->detach();
  fill();
}

void Lines::fill() {
  std::string chunk(65536, '\0');
  const auto length = ::read(fd_, chunk.data(), chunk.size());
  if (length > 0) {
    splitter_.feed(std::string_view(chunk).substr(0, static_cast<std::size_t>(length)));
  } else if (length == 0) {
    splitter_.end();
  } else if (errno != EAGAIN && errno != EINTR) {
    throw unreadable(file_, errno);
  }
  want();
}

MessageSource::MessageSource(const std::string& text, std::uint64_t copies, Taker taker)
    : taker_(std::move(taker)), copies_(copies) {
  if (text != "-") {
    text_ = sendable(text, "the message");
    return;
  }
  checkFile(STDIN_FILENO);
  lines_.emplace("-", [this](const auto& line) { takeLine(line); });
}

void MessageSource::want() {
  if (lines_) {
    lines_->want();
  } else {
    pump_.want();
  }
}

void MessageSource::takeText() {
  if (copies_ == 0) {
    return taker_(nullptr);
  }
  --copies_;
  taker_(&text_);
}

void MessageSource::takeLine(const std::optional<std::string>& line) {
  if (!line && handedOut_ == 0) {
    throw Failure(Exit::kUsage,
                  "there is no message to send; give one, or one on each line of "
                  "standard input.");
  }
  if (!line) {
    return taker_(nullptr);
  }
  if (isBlank(*line)) {
    return lines_->want();
  }
  const std::string before =
      handedOut_ == 0 ? "" : " (" + counted(handedOut_, "line") + " before it went out)";
  const std::string message =
      sendable(*line, "line " + std::to_string(lines_->number()) + " of the input" + before);
  ++handedOut_;
  taker_(&message);
}

std::string sendable(std::string_view text, const std::string& what) {
  Lint judged = lint(text);
  const std::string why = whyNotSendable(judged);
  if (!why.empty()) {
    const bool cut = !judged.notJson.empty() && what.rfind("line", 0) == 0;
    throw Failure(Exit::kUsage, what + " must not be sent: " + why +
                                    (cut ? "; a message is one line, as 'jq -c' prints it." : "."));
  }
  return std::move(judged.compact);
}

bool isBlank(std::string_view line) {
  return line.find_first_not_of(" \t\r") == std::string_view::npos;
}

Tovik::Message messageFrom(std::string_view json) {
  Tovik::Message message;
  message.Parse<rapidjson::kParseIterativeFlag>(std::string(json).c_str());
  return message;
}

}  // namespace tool
