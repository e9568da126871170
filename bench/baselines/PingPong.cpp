// The two blocking baselines: one connection, one read and one write a request, without or with the
// JSON work. No design that speaks over such a socket gets below them. And the client that waits
// with epoll, for the third one's server. All of them are roles of one program.

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "bench/baselines/Baselines.h"

namespace Bench {

namespace {

constexpr std::string_view kReply = R"({"type":"reply","status":7})";

void answerBytes(int fd, const Record& request) {
  if (request.size() == sizeof kRequest - 1) {  // notes have another length
    writeRecord(fd, kReply);
  }
}

void answerJson(int fd, const Record& request) {
  const rapidjson::Document message = parsed(request.text());
  const Request wish = understand(message);
  if (wish.wanted == Wanted::kStatus) {
    writeReply(fd, wish.status);
  }
}

template <class Answer>
void serve(const std::string& name, Answer answer) {
  const int listening = listenOn(name);
  announceReady();
  while (true) {
    const int fd = static_cast<int>(must(::accept(listening, nullptr, nullptr), "accept"));
    Record request;
    while (request.readFrom(fd)) {
      answer(fd, request);
    }
    ::close(fd);
  }
}

class RawClient : public Client {
 public:
  explicit RawClient(const std::string& name) : fd_(connectTo(name)) {}
  ~RawClient() override { ::close(fd_); }

 protected:
  const int fd_;
};

class BytesClient : public RawClient {
 public:
  using RawClient::RawClient;

  void call() override {
    writeRecord(fd_, kRequest);
    if (answerFrom(fd_).size() != kReply.size()) {
      throw std::runtime_error("no reply");
    }
  }

 private:
  void note() override { writeRecord(fd_, kNote); }
};

class JsonClient : public RawClient {
 public:
  using RawClient::RawClient;

  void call() override {
    writeMessage(fd_, request_);
    wait();
    expectStatus(statusOf(parsed(answerFrom(fd_).text())));
  }

 private:
  void note() override { writeMessage(fd_, note_); }
  virtual void wait() const {}

  const rapidjson::Document request_ = parsed(kRequest);
  const rapidjson::Document note_ = parsed(kNote);
};

/// The baseline of an asynchronous client: write, wait with epoll, read.
class EpollClient : public JsonClient {
 public:
  explicit EpollClient(const std::string& name)
      : JsonClient(name), epoll_(static_cast<int>(must(epoll_create1(0), "epoll"))) {
    must(::fcntl(fd_, F_SETFL, O_NONBLOCK), "fcntl");
    epoll_event event{};
    event.events = EPOLLIN;
    must(epoll_ctl(epoll_, EPOLL_CTL_ADD, fd_, &event), "epoll_ctl");
  }
  ~EpollClient() override { ::close(epoll_); }

 private:
  void wait() const override {
    epoll_event event{};
    must(epoll_wait(epoll_, &event, 1, -1), "epoll_wait");
  }

  const int epoll_;
};

}  // namespace

}  // namespace Bench

int main(int argc, char** argv) {
  using namespace Bench;
  return runAs(argc, argv,
               {{"serve-bytes", [](const std::string& name) { serve(name, answerBytes); }},
                {"drive-bytes", driveClient<BytesClient>},
                {"serve-json", [](const std::string& name) { serve(name, answerJson); }},
                {"drive-json", driveClient<JsonClient>},
                {"serve-epoll", serveEpoll},
                {"drive-epoll", driveClient<EpollClient>},
                {"crowd", driveCrowd}});
}
