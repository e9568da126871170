// nng: a req and a rep socket for requests. Notes go through push and pull, which a thread of its
// own reads; when a request comes that way, it is answered by a pair that goes back. News go from a
// pub socket to one sub socket for each subscriber.

#include <nng/nng.h>
#include <nng/protocol/pipeline0/pull.h>
#include <nng/protocol/pipeline0/push.h>
#include <nng/protocol/pubsub0/pub.h>
#include <nng/protocol/pubsub0/sub.h>
#include <nng/protocol/reqrep0/rep.h>
#include <nng/protocol/reqrep0/req.h>

#include <memory>
#include <thread>
#include <vector>

#include "bench/peers/Texts.h"

namespace Bench {

namespace {

void succeed(int result) {
  if (result != 0) {
    throw std::runtime_error(nng_strerror(result));
  }
}

class Socket {
 public:
  explicit Socket(int (*open)(nng_socket*)) { succeed(open(&socket_)); }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  ~Socket() { nng_close(socket_); }

  void listen(const std::string& url) { succeed(nng_listen(socket_, url.c_str(), nullptr, 0)); }
  void dial(const std::string& url) { succeed(nng_dial(socket_, url.c_str(), nullptr, 0)); }

  void send(const std::string& text) {
    nng_msg* message = nullptr;
    succeed(nng_msg_alloc(&message, 0));
    succeed(nng_msg_append(message, text.c_str(), text.size() + 1));
    succeed(nng_sendmsg(socket_, message, 0));
  }
  void subscribe() { succeed(nng_socket_set(socket_, NNG_OPT_SUB_SUBSCRIBE, "", 0)); }

  /// False if nothing has come in time.
  bool receive(std::chrono::milliseconds patience) {
    succeed(
        nng_socket_set_ms(socket_, NNG_OPT_RECVTIMEO, static_cast<nng_duration>(patience.count())));
    nng_msg* message = nullptr;
    const int result = nng_recvmsg(socket_, &message, 0);
    if (result == NNG_ETIMEDOUT) {
      return false;
    }
    succeed(result);
    nng_msg_free(message);
    return true;
  }
  std::string receive() {
    nng_msg* message = nullptr;
    succeed(nng_recvmsg(socket_, &message, 0));
    std::string text = static_cast<const char*>(nng_msg_body(message));
    nng_msg_free(message);
    return text;
  }

 private:
  nng_socket socket_ = NNG_SOCKET_INITIALIZER;
};

void serveNotes(const std::string& url) {
  Socket notes(nng_pull0_open);
  Socket answers(nng_push0_open);
  notes.listen(url + "-notes");
  answers.listen(url + "-answers");
  while (true) {
    const std::string answer = answerTo(notes.receive().c_str());
    if (!answer.empty()) {
      answers.send(answer);
    }
  }
}

void serve(const std::string& path) {
  const std::string url = "ipc://" + path;
  Socket requests(nng_rep0_open);
  requests.listen(url);
  Socket news(nng_pub0_open);
  news.listen(url + "-news");
  std::thread(serveNotes, url).detach();
  announceReady();
  while (true) {
    const std::string request = requests.receive();
    if (wantsBroadcast(request)) {
      news.send(newsText());
    }
    requests.send(answerTo(request.c_str()));
  }
}

class NngClient : public TextClient {
 public:
  explicit NngClient(const std::string& path) : url_("ipc://" + path) { requests_.dial(url_); }

  void call() override {
    requests_.send(request());
    check(requests_.receive());
  }

  void stream(unsigned count) override {
    if (!streaming_) {
      notes_.dial(url_ + "-notes");
      answers_.dial(url_ + "-answers");
      streaming_ = true;
    }
    for (unsigned i = 0; i < count; ++i) {
      notes_.send(note());
    }
    notes_.send(request());
    check(answers_.receive());
  }

 private:
  const std::string url_;
  Socket requests_{nng_req0_open};
  Socket notes_{nng_push0_open};
  Socket answers_{nng_pull0_open};
  bool streaming_ = false;
};

class NngCrowd : public TextCrowd {
 public:
  explicit NngCrowd(const std::string& path) : url_("ipc://" + path) { requests_.dial(url_); }

 private:
  void join() override {
    members_.push_back(std::make_unique<Socket>(nng_sub0_open));
    members_.back()->subscribe();
    members_.back()->dial(url_ + "-news");
  }
  void tell() override {
    requests_.send(kTrigger);
    requests_.receive();
  }
  bool hear(unsigned member, std::chrono::milliseconds patience) override {
    return members_[member]->receive(patience);
  }

  const std::string url_;
  Socket requests_{nng_req0_open};
  std::vector<std::unique_ptr<Socket>> members_;
};

}  // namespace

}  // namespace Bench

int main(int argc, char** argv) {
  return Bench::runPeer<Bench::NngClient>(argc, argv, Bench::serve,
                                          {{"crowd", Bench::driveCrowd<Bench::NngCrowd>}});
}
