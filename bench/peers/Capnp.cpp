// Cap'n Proto RPC over a unix socket, with the interfaces that its tutorial starts from. Notes are
// a streaming method.

#include <capnp/ez-rpc.h>

#include "bench.capnp.h"
#include "bench/peers/Texts.h"

namespace Bench {

namespace {

class Servant final : public BenchRpc::Bench::Server {
 protected:
  kj::Promise<void> request(RequestContext context) override {
    context.getResults().setText(answerTo(context.getParams().getText().cStr()).c_str());
    return kj::READY_NOW;
  }
  kj::Promise<void> note(NoteContext context) override {
    answerTo(context.getParams().getText().cStr());
    return kj::READY_NOW;
  }
};

void serve(const std::string& path) {
  capnp::EzRpcServer server(kj::heap<Servant>(), ("unix:" + path).c_str());
  server.getPort().wait(server.getWaitScope());
  announceReady();
  kj::NEVER_DONE.wait(server.getWaitScope());
}

class CapnpClient : public TextClient {
 public:
  explicit CapnpClient(const std::string& path)
      : client_(("unix:" + path).c_str()), servant_(client_.getMain<BenchRpc::Bench>()) {}
  // Those of the members may throw in principle; a client that cannot be closed ends the program.
  ~CapnpClient() noexcept override = default;

  void call() override {
    auto call = servant_.requestRequest();
    call.setText(requestText().c_str());
    const auto reply = call.send().wait(client_.getWaitScope());
    check(reply.getText().cStr());
  }

 private:
  void note() override {
    auto call = servant_.noteRequest();
    call.setText(noteText().c_str());
    call.send().wait(client_.getWaitScope());  // until there is room for the next one
  }

  capnp::EzRpcClient client_;
  BenchRpc::Bench::Client servant_;
};

}  // namespace

}  // namespace Bench

int main(int argc, char** argv) {
  return Bench::runPeer<Bench::CapnpClient>(argc, argv, Bench::serve);
}
