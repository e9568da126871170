#include <nng/nng.h>
#include <nng/protocol/pipeline0/pull.h>
#include <nng/protocol/pipeline0/push.h>
#include <nng/protocol/pubsub0/pub.h>
#include <nng/protocol/pubsub0/sub.h>
#include <nng/protocol/reqrep0/rep.h>
#include <nng/protocol/reqrep0/req.h>

#include "bench/peers/Patterns.h"

namespace {

void succeed(int result) {
  if (result != 0) {
    throw std::runtime_error(nng_strerror(result));
  }
}

class Socket {
 public:
  using Kind = int (*)(nng_socket*);
  static constexpr Kind kReq = nng_req0_open, kRep = nng_rep0_open, kPush = nng_push0_open,
                        kPull = nng_pull0_open, kPub = nng_pub0_open, kSub = nng_sub0_open;

  explicit Socket(Kind kind) {
    succeed(kind(&socket_));
    if (kind == kSub) {
      succeed(nng_socket_set(socket_, NNG_OPT_SUB_SUBSCRIBE, "", 0));
    }
  }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  ~Socket() { nng_close(socket_); }

  void bind(const std::string& url) { succeed(nng_listen(socket_, url.c_str(), nullptr, 0)); }
  void connect(const std::string& url) { succeed(nng_dial(socket_, url.c_str(), nullptr, 0)); }

  void send(const std::string& text) {
    nng_msg* message = nullptr;
    succeed(nng_msg_alloc(&message, 0));
    succeed(nng_msg_append(message, text.c_str(), text.size() + 1));
    succeed(nng_sendmsg(socket_, message, 0));
  }

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

}  // namespace

int main(int argc, char** argv) {
  return Bench::runPatterns<Socket>(argc, argv);
}
