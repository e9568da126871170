// ZeroMQ: REQ and REP for requests. Notes go through a PUSH to a PULL socket, which a thread of its
// own reads; when a request comes that way, it is answered by a pair that goes back.

#include <thread>
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
  std::thread(serveNotes, std::ref(context), address).detach();
  announceReady();
  while (true) {
    send(requests, answerTo(received(requests).c_str()));
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

}  // namespace

}  // namespace Bench

int main(int argc, char** argv) {
  return Bench::runPeer<Bench::ZmqClient>(argc, argv, Bench::serve);
}
