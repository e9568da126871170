// The two blocking baselines: one connection, one read and one write a request, without or with the
// JSON work. No design that speaks over such a socket gets below them.

#include <sys/socket.h>
#include <unistd.h>

#include "bench/baselines/Baselines.h"
#include "bench/support/Raw.h"
#include "bench/support/Work.h"

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
    rapidjson::StringBuffer reply;
    serialiseReply(wish.status, reply);
    writeRecord(fd, {reply.GetString(), reply.GetSize()});
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

class BytesClient : public Client {
 public:
  explicit BytesClient(const std::string& name) : fd_(connectTo(name)) {}
  ~BytesClient() override { ::close(fd_); }

  void call() override {
    writeRecord(fd_, kRequest);
    if (answerFrom(fd_).size() != kReply.size()) {
      throw std::runtime_error("no reply");
    }
  }
  void stream(unsigned count) override {
    for (unsigned i = 0; i < count; ++i) {
      writeRecord(fd_, kNote);
    }
    call();
  }

 private:
  const int fd_;
};

class JsonClient : public Client {
 public:
  explicit JsonClient(const std::string& name) : fd_(connectTo(name)) {}
  ~JsonClient() override { ::close(fd_); }

  void call() override {
    send(request_);
    expectStatus(statusOf(answerFrom(fd_).text()));
  }
  void stream(unsigned count) override {
    for (unsigned i = 0; i < count; ++i) {
      send(note_);
    }
    call();
  }

 private:
  void send(const rapidjson::Document& message) const {
    rapidjson::StringBuffer text;
    serialise(message, text);
    writeRecord(fd_, {text.GetString(), text.GetSize()});
  }

  const int fd_;
  const rapidjson::Document request_ = parsed(kRequest);
  const rapidjson::Document note_ = parsed(kNote);
};

}  // namespace

void serveBytes(const std::string& name) {
  serve(name, answerBytes);
}

void serveJson(const std::string& name) {
  serve(name, answerJson);
}

void driveBytes(const std::string& name) {
  BytesClient client(name);
  obey(client);
}

void driveJson(const std::string& name) {
  JsonClient client(name);
  obey(client);
}

}  // namespace Bench
