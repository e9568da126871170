// The baseline of an asynchronous client: write, wait with epoll, read.

#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

#include "bench/baselines/Baselines.h"
#include "bench/support/Raw.h"
#include "bench/support/Work.h"

namespace Bench {

namespace {

class EpollClient : public Client {
 public:
  explicit EpollClient(const std::string& name)
      : fd_(connectTo(name)), epoll_(static_cast<int>(must(epoll_create1(0), "epoll"))) {
    must(::fcntl(fd_, F_SETFL, O_NONBLOCK), "fcntl");
    epoll_event event{};
    event.events = EPOLLIN;
    must(epoll_ctl(epoll_, EPOLL_CTL_ADD, fd_, &event), "epoll_ctl");
  }
  ~EpollClient() override {
    ::close(epoll_);
    ::close(fd_);
  }

  void call() override {
    rapidjson::StringBuffer text;
    serialise(request_, text);
    writeRecord(fd_, {text.GetString(), text.GetSize()});
    epoll_event event{};
    must(epoll_wait(epoll_, &event, 1, -1), "epoll_wait");
    expectStatus(statusOf(answerFrom(fd_).text()));
  }

 private:
  const int fd_;
  const int epoll_;
  const rapidjson::Document request_ = parsed(kRequest);
};

}  // namespace

void driveEpoll(const std::string& name) {
  EpollClient client(name);
  obey(client);
}

}  // namespace Bench
