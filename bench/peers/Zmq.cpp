#include <zmq.hpp>

#include "bench/peers/Patterns.h"

namespace {

/// One for the process, which ends with it.
zmq::context_t& context() {
  static zmq::context_t& context = *[] {
    auto* const made = new zmq::context_t;
    made->set(zmq::ctxopt::max_sockets, 4096);
    return made;
  }();
  return context;
}

class Socket {
 public:
  using Kind = zmq::socket_type;
  static constexpr Kind kReq = Kind::req, kRep = Kind::rep, kPush = Kind::push, kPull = Kind::pull,
                        kPub = Kind::pub, kSub = Kind::sub;

  explicit Socket(Kind kind) : socket_(context(), kind) {
    if (kind == kSub) {
      socket_.set(zmq::sockopt::subscribe, "");
    }
  }

  void bind(const std::string& url) { socket_.bind(url); }
  void connect(const std::string& url) { socket_.connect(url); }

  void send(const std::string& text) {
    if (!socket_.send(zmq::buffer(text))) {
      throw std::runtime_error("not sent");
    }
  }

  /// False if nothing has come in time.
  bool receive(std::chrono::milliseconds patience) {
    zmq::message_t message;
    socket_.set(zmq::sockopt::rcvtimeo, static_cast<int>(patience.count()));
    return socket_.recv(message).has_value();
  }
  std::string receive() {
    zmq::message_t message;
    if (!socket_.recv(message)) {
      throw std::runtime_error("nothing received");
    }
    return message.to_string();
  }

 private:
  zmq::socket_t socket_;
};

}  // namespace

int main(int argc, char** argv) {
  return Bench::runPatterns<Socket>(argc, argv);
}
