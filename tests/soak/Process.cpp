#include "tests/soak/Process.h"

#include <dirent.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <utility>

namespace Soak {

namespace {

constexpr int kCommandsFd = 3;

/// Of the parent's descriptors, sockets of other children among them, none is to live on here.
[[noreturn]] void live(const std::string& name, pid_t parent, int commands,
                       const Process::Role& role) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != parent) {
    std::_Exit(1);  // it has died before it could be watched
  }
  ::dup2(commands, kCommandsFd);
  ::close_range(kCommandsFd + 1, ~0U, 0);
  try {
    role(kCommandsFd);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "soak: %s: %s\n", name.c_str(), error.what());
  }
  std::_Exit(1);
}

/// The number after `key` in a file of lines like "key:   number unit".
std::uint64_t field(const std::string& path, const std::string& key) {
  std::ifstream file(path);
  std::string line;
  while (std::getline(file, line)) {
    if (line.rfind(key + ":", 0) == 0) {
      return std::stoull(line.substr(key.size() + 1));
    }
  }
  throw Failure("no " + key + " in " + path);
}

std::uint64_t entries(const std::string& path) {
  DIR* const folder = ::opendir(path.c_str());
  if (folder == nullptr) {
    throw Failure("cannot list " + path);
  }
  std::uint64_t count = 0;
  while (const dirent* entry = ::readdir(folder)) {
    count += entry->d_name[0] != '.' ? 1U : 0U;
  }
  ::closedir(folder);
  return count;
}

}  // namespace

std::chrono::seconds Process::patience{120};

Process::Process(std::string name, const Role& role) : name_(std::move(name)) {
  int ends[2] = {-1, -1};
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
    throw Failure("no socket for the commands of " + name_);
  }
  const pid_t self = ::getpid();
  pid_ = ::fork();
  if (pid_ == 0) {
    live(name_, self, ends[1], role);
  }
  ::close(ends[1]);
  commands_ = ends[0];
  if (pid_ < 0) {
    ::close(commands_);
    throw Failure("no process for " + name_);
  }
  try {
    await<Done>();
  } catch (...) {
    ::close(commands_);
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    throw;
  }
}

Process::~Process() {
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
  ::close(commands_);
}

void Process::tell(const Command& command) const {
  if (::send(commands_, &command, sizeof command, MSG_NOSIGNAL) < 0) {
    throw Failure("the " + name_ + " has died");
  }
}

void Process::receive(void* answer, std::size_t size) const {
  pollfd query{commands_, POLLIN, 0};
  const auto limit = std::chrono::milliseconds(patience).count();
  if (::poll(&query, 1, static_cast<int>(limit)) <= 0) {
    throw Failure("the " + name_ + " has not answered within " + std::to_string(patience.count()) +
                  " s");
  }
  const auto length = ::recv(commands_, answer, size, MSG_TRUNC);
  if (length <= 0) {
    throw Failure("the " + name_ + " has died");
  }
  if (static_cast<std::size_t>(length) != size) {
    throw Failure("the " + name_ + " has answered another question");
  }
}

void Process::signal(int number) const {
  ::kill(pid_, number);
}

// The sum of the pages, which is slow but exact; the kernel's running totals are not.
Resources Process::resources() const {
  const std::string folder = "/proc/" + std::to_string(pid_);
  return {field(folder + "/smaps_rollup", "Anonymous"), entries(folder + "/fd"), 0,
          field(folder + "/status", "voluntary_ctxt_switches") +
              field(folder + "/status", "nonvoluntary_ctxt_switches")};
}

Commands::Commands(int fd, Handler handler)
    : fd_(fd), handler_(std::move(handler)), control_(Kelvo::Platform::getFdControl(this)) {
  control_->attach(fd);
}

void Commands::readFdEvent(int fd) {
  handler_(receive(fd));
}

Command Commands::receive(int fd) {
  Command command;
  if (::recv(fd, &command, sizeof command, 0) != sizeof command) {
    std::_Exit(0);  // the parent has gone
  }
  return command;
}

void Commands::send(int fd, const void* answer, std::size_t size) {
  if (::send(fd, answer, size, MSG_NOSIGNAL) < 0) {
    std::_Exit(0);
  }
}

}  // namespace Soak
