// The baseline for the library: the least that a non-blocking server of many clients can do. It has
// no queues, and gives up where the library would queue.
//
// wait -> accept, credentials, flags, registration; wait -> read -> parse -> reply or broadcast.

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <vector>

#include "bench/baselines/Baselines.h"

namespace Bench {

namespace {

bool isSwitch(const rapidjson::Document& message) {
  const auto command = message.FindMember("command");
  return command != message.MemberEnd() &&
         message.FindMember("notification") != message.MemberEnd() &&
         std::strcmp(command->value.GetString(), "set") == 0;
}

class EpollServer {
 public:
  explicit EpollServer(const std::string& name)
      : listening_(listenOn(name)), epoll_(static_cast<int>(must(epoll_create1(0), "epoll"))) {
    watch(listening_);
  }

  /// Waits once, and deals with what is ready.
  void turn() {
    std::array<epoll_event, 64> batch;
    const auto count = must(epoll_wait(epoll_, batch.data(), 64, -1), "epoll_wait");
    for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i) {
      const int fd = batch[i].data.fd;
      fd == listening_ ? admit() : serve(fd);
    }
  }

 private:
  void watch(int fd) const {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = fd;
    must(epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event), "epoll_ctl");
  }

  void admit() {
    const int fd = static_cast<int>(must(::accept(listening_, nullptr, nullptr), "accept"));
    ucred peer{};
    socklen_t size = sizeof peer;
    must(::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size), "getsockopt");
    if (peer.uid != ::geteuid()) {
      ::close(fd);
      return;
    }
    const auto flags = must(::fcntl(fd, F_GETFL, 0), "fcntl");
    must(::fcntl(fd, F_SETFL, static_cast<int>(flags) | O_NONBLOCK), "fcntl");
    watch(fd);
    if (subscribed_.size() <= static_cast<std::size_t>(fd)) {
      subscribed_.resize(static_cast<std::size_t>(fd) + 1);
    }
  }

  void serve(int fd) {
    Record record;
    if (!record.readFrom(fd)) {
      subscribed_[static_cast<std::size_t>(fd)] = false;
      ::close(fd);
      return;
    }
    const rapidjson::Document message = parsed(record.text());
    if (isSwitch(message)) {
      writeReply(fd, 0);
      subscribed_[static_cast<std::size_t>(fd)] = message["notification"].GetBool();
      return;
    }
    const Request request = understand(message);
    if (request.wanted == Wanted::kNothing) {
      return;
    }
    if (request.wanted == Wanted::kBroadcast) {
      broadcast();
    }
    writeReply(fd, request.status);
  }

  void broadcast() const {
    for (std::size_t fd = 0; fd < subscribed_.size(); ++fd) {
      if (subscribed_[fd]) {
        writeMessage(static_cast<int>(fd), news_);
      }
    }
  }

  const int listening_;
  const int epoll_;
  std::vector<bool> subscribed_;  // by descriptor
  const rapidjson::Document news_ = parsed(kNews);
};

}  // namespace

void serveEpoll(const std::string& name) {
  EpollServer server(name);
  announceReady();
  while (true) {
    server.turn();
  }
}

}  // namespace Bench
