// The kernel's own limits, which no library gets around: how many records a socket takes before its
// reader reads one, by size, and how many clients wait in a backlog.

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

#include "bench/support/Driven.h"
#include "bench/support/Raw.h"

namespace {

using Bench::must;

int queuedRecords(std::size_t size) {
  int ends[2];
  must(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0, ends), "socketpair");
  const std::string record(size, 'x');
  int count = 0;
  while (::write(ends[0], record.data(), record.size()) >= 0) {
    ++count;
  }
  must(errno == EAGAIN ? 0 : -1, "write");
  ::close(ends[0]);
  ::close(ends[1]);
  return count;
}

/// How many connects succeed while nobody accepts. They are non-blocking, which for these sockets
/// is a flag of the connecting one.
int waitingClients(const std::string& name) {
  const int listening = Bench::listenOn(name);  // with the library's backlog
  std::vector<int> clients;
  int fd = Bench::tryConnectTo(name);
  while (fd >= 0) {
    clients.push_back(fd);
    fd = Bench::tryConnectTo(name);
  }
  must(errno == EAGAIN ? 0 : -1, "connect");
  for (const int client : clients) {
    ::close(client);
  }
  ::close(listening);
  return static_cast<int>(clients.size());
}

void print(const std::string& name) {
  std::printf("record size, bytes | records queued before EAGAIN\n");
  for (const std::size_t size : {20U, 100U, 200U, 400U, 1000U, 2000U, 4094U}) {
    std::printf("%18zu | %d\n", size, queuedRecords(size));
  }
  std::printf("clients that a backlog of 5 lets wait: %d\n", waitingClients(name));
}

}  // namespace

int main(int argc, char** argv) {
  return Bench::runAs(argc, argv, {{"print", print}});
}
