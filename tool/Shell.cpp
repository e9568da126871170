#include "tool/Shell.h"

#include <spawn.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

#include "tool/Report.h"

namespace tool {

namespace {

Failure cannotRun(int error) {
  return {Exit::kLost, std::string("the command cannot be run: ") + std::strerror(error) + "."};
}

/// A file in memory that holds the whole input: unlike a pipe, it has room for any, so that nobody
/// waits for the command to read.
int fileHolding(const std::string& input) {
  const int fd = ::memfd_create("message", MFD_CLOEXEC);
  if (fd < 0 || ::pwrite(fd, input.data(), input.size(), 0) < 0) {
    throw cannotRun(errno);
  }
  return fd;
}

/// Starts a shell as any program expects to be started: with default signals, and without the
/// sockets, whose names an inherited descriptor would keep taken.
int spawn(const std::string& command, int input) {
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_adddup2(&files, input, STDIN_FILENO);
  posix_spawn_file_actions_addclosefrom_np(&files, STDERR_FILENO + 1);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t set;
  sigemptyset(&set);
  posix_spawnattr_setsigmask(&attributes, &set);
  sigaddset(&set, SIGPIPE);
  posix_spawnattr_setsigdefault(&attributes, &set);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  std::string words[] = {"sh", "-c", command};  // whose characters posix_spawn may not take const
  char* const arguments[] = {words[0].data(), words[1].data(), words[2].data(), nullptr};
  int pid = -1;
  const int error = ::posix_spawn(&pid, "/bin/sh", &files, &attributes, arguments, environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&files);
  if (error != 0) {
    throw cannotRun(error);
  }
  return pid;
}

}  // namespace

ShellCommand::ShellCommand(const std::string& command, const std::string& input,
                           std::function<void(unsigned)> finished)
    : finished_(std::move(finished)) {
  const int file = fileHolding(input);
  pid_ = spawn(command, file);
  ::close(file);
  pidFd_ = static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0));
  if (pidFd_ < 0) {
    throw cannotRun(errno);
  }
  end_.emplace(pidFd_, [this] { lookAtEnd(); });
}

ShellCommand::~ShellCommand() {
  end_.reset();
  ::close(pidFd_);
  if (pid_ > 0) {
    ::kill(pid_, SIGTERM);  // not waited for yet, so the number is still the command's
  }
}

void ShellCommand::lookAtEnd() {
  int status = 0;
  if (::waitpid(pid_, &status, WNOHANG) != pid_) {
    return;
  }
  end_->detach();
  pid_ = -1;
  finished_(
      static_cast<unsigned>(WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status)));
}

}  // namespace tool
