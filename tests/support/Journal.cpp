#include "tests/support/Journal.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>

#include <regex>
#include <utility>

#include "Kelvo/Platform/Debug.h"

using Faults::Call;

Journal::Journal(unsigned levels)
    : sink_(levels, [this](const auto& record) {
        trace_.note(std::to_string(record.level) + " " + record.function + ": " + record.text);
      }) {}

std::vector<std::string> Journal::take() {
  write();
  return std::exchange(lines_, {});
}

/// Makes lines of the calls so far, in which letters mean what they mean now.
void Journal::write() {
  for (const auto& seen : trace_.calls()) {
    if (auto line = lineOf(seen); !line.empty()) {
      lines_.push_back(std::move(line));
    }
  }
  trace_.clear();
}

void Journal::name(int fd) {
  write();
  newLetter(fd);
}

char Journal::newLetter(int fd) {
  const char letter = static_cast<char>('a' + fds_.size());
  letters_[fd] = letter;
  fds_[letter] = fd;
  return letter;
}

int Journal::fd(char letter) const {
  return fds_.at(letter);
}

std::string Journal::withLetters(std::string text) const {
  static const std::regex number(R"((fd = |validateConnection\( )(\d+))");
  std::smatch found;
  if (std::regex_search(text, found, number)) {
    if (const auto letter = letters_.find(std::stoi(found[2])); letter != letters_.end()) {
      text.replace(static_cast<std::size_t>(found.position(2)),
                   static_cast<std::size_t>(found.length(2)), 1, letter->second);
    }
  }
  return text;
}

std::string Journal::lineOf(const Faults::Seen& seen) {
  static const std::map<Call, const char*> words{{Call::kBind, "bind"},
                                                 {Call::kListen, "listen"},
                                                 {Call::kAccept, "accept"},
                                                 {Call::kConnect, "connect"},
                                                 {Call::kGetsockopt, "getsockopt"},
                                                 {Call::kGetFl, "getfl"},
                                                 {Call::kSetFl, "setfl"},
                                                 {Call::kRead, "read"},
                                                 {Call::kWrite, "write"},
                                                 {Call::kClose, "close"}};
  const std::string fails = seen.result < 0 ? " fails" : "";
  if (seen.call == Call::kNote) {
    return withLetters(seen.bytes);
  }
  if (seen.call == Call::kStrerror) {
    return "strerror";
  }
  if (seen.call == Call::kSocket) {
    return std::string("socket ") + newLetter(static_cast<int>(seen.result)) + fails;
  }
  const auto letter = letters_.find(seen.fd);
  if (letter == letters_.end()) {
    return "";
  }
  std::string line;
  if (seen.call == Call::kEpollCtl) {
    line = seen.size == EPOLL_CTL_ADD ? "attach" : seen.size == EPOLL_CTL_DEL ? "detach" : "change";
  } else if (const auto word = words.find(seen.call); word != words.end()) {
    line = word->second;
  } else {
    return "";
  }
  line += std::string(" ") + letter->second;
  if (seen.call == Call::kWrite) {
    line += " " + seen.bytes;
  }
  if (seen.call == Call::kAccept && seen.result >= 0) {
    line += std::string(" ") + newLetter(static_cast<int>(seen.result));
  }
  if (seen.call == Call::kClose) {
    letters_.erase(seen.fd);
  }
  return line + fails;
}
