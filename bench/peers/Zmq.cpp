// ZeroMQ: REQ and REP for requests. Notes go through a PUSH to a PULL socket, which a thread of its
// own reads; when a request comes that way, it is answered by a pair that goes back. News go from a
// PUB socket to one SUB socket for each subscriber.

#include <thread>
#include <vector>
#include <zmq.hpp>

#include "bench/peers/Texts.h"

namespace Bench {

namespace {

std::string received(zmq::socket_t& socket) {
  zmq::message_t message;
  if (!socket.recv(message)) {
    throw std::runtime_error("nothing received");
  }
  return message.to_string();
}

void send(zmq::socket_t& socket, const std::string& text) {
  if (!socket.send(zmq::buffer(text))) {
    throw std::runtime_error("not sent");
  }
}

void serveNotes(zmq::context_t& context, const std::string& address) {
  zmq::socket_t notes(context, zmq::socket_type::pull);
  zmq::socket_t answers(context, zmq::socket_type::push);
  notes.bind(address + "-notes");
  answers.bind(address + "-answers");
  while (true) {
    const std::string answer = answerTo(received(notes).c_str());
    if (!answer.empty()) {
      send(answers, answer);
    }
  }
}

void serve(const std::string& path) {
  const std::string address = "ipc://" + path;
  zmq::context_t context;
  zmq::socket_t requests(context, zmq::socket_type::rep);
  requests.bind(address);
  zmq::socket_t news(context, zmq::socket_type::pub);
  news.bind(address + "-news");
  std::thread(serveNotes, std::ref(context), address).detach();
  announceReady();
  while (true) {
    const std::string request = received(requests);
    if (wantsBroadcast(request)) {
      send(news, newsText());
    }
    send(requests, answerTo(request.c_str()));
  }
}

class ZmqClient : public TextClient {
 public:
  explicit ZmqClient(const std::string& path) : address_("ipc://" + path) {
    requests_.connect(address_);
  }

  void call() override {
    send(requests_, request());
    check(received(requests_));
  }

  void stream(unsigned count) override {
    if (!streaming_) {
      notes_.connect(address_ + "-notes");
      answers_.connect(address_ + "-answers");
      streaming_ = true;
    }
    for (unsigned i = 0; i < count; ++i) {
      send(notes_, note());
    }
    send(notes_, request());
    check(received(answers_));
  }

 private:
  const std::string address_;
  zmq::context_t context_;
  zmq::socket_t requests_{context_, zmq::socket_type::req};
  zmq::socket_t notes_{context_, zmq::socket_type::push};
  zmq::socket_t answers_{context_, zmq::socket_type::pull};
  bool streaming_ = false;
};

class ZmqCrowd : public TextCrowd {
 public:
  explicit ZmqCrowd(const std::string& path) : address_("ipc://" + path) {
    context_.set(zmq::ctxopt::max_sockets, 4096);
    requests_ = zmq::socket_t(context_, zmq::socket_type::req);
    requests_.connect(address_);
  }

 private:
  void join() override {
    members_.emplace_back(context_, zmq::socket_type::sub);
    members_.back().set(zmq::sockopt::subscribe, "");
    members_.back().connect(address_ + "-news");
  }
  void tell() override {
    send(requests_, kTrigger);
    received(requests_);
  }
  bool hear(unsigned member, std::chrono::milliseconds patience) override {
    zmq::message_t message;
    members_[member].set(zmq::sockopt::rcvtimeo, static_cast<int>(patience.count()));
    return members_[member].recv(message).has_value();
  }

  const std::string address_;
  zmq::context_t context_;
  zmq::socket_t requests_;
  std::vector<zmq::socket_t> members_;
};

}  // namespace

}  // namespace Bench

int main(int argc, char** argv) {
  return Bench::runPeer<Bench::ZmqClient>(argc, argv, Bench::serve,
                                          {{"crowd", Bench::driveCrowd<Bench::ZmqCrowd>}});
}
