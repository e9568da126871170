// gRPC over a unix socket: the synchronous server and stub. Notes are a stream from the client.

#include <grpcpp/grpcpp.h>

#include "bench.grpc.pb.h"
#include "bench/peers/Texts.h"

namespace Bench {

namespace {

class Servant final : public BenchRpc::Bench::Service {
  grpc::Status Request(grpc::ServerContext* /*context*/, const BenchRpc::Text* request,
                       BenchRpc::Text* reply) override {
    reply->set_text(answerTo(request->text().c_str()));
    return grpc::Status::OK;
  }
  grpc::Status Notes(grpc::ServerContext* /*context*/, grpc::ServerReader<BenchRpc::Text>* notes,
                     BenchRpc::Text* reply) override {
    BenchRpc::Text note;
    while (notes->Read(&note)) {
      reply->set_text(answerTo(note.text().c_str()));
    }
    return grpc::Status::OK;
  }
};

void serve(const std::string& path) {
  Servant servant;
  grpc::ServerBuilder builder;
  builder.AddListeningPort("unix:" + path, grpc::InsecureServerCredentials());
  builder.RegisterService(&servant);
  const auto server = builder.BuildAndStart();
  announceReady();
  server->Wait();
}

class GrpcClient : public TextClient {
 public:
  explicit GrpcClient(const std::string& path)
      : stub_(BenchRpc::Bench::NewStub(
            grpc::CreateChannel("unix:" + path, grpc::InsecureChannelCredentials()))) {}

  void call() override {
    grpc::ClientContext context;
    BenchRpc::Text question;
    BenchRpc::Text reply;
    question.set_text(requestText());
    succeed(stub_->Request(&context, question, &reply));
    check(reply.text());
  }

  void stream(unsigned count) override {
    grpc::ClientContext context;
    BenchRpc::Text reply;
    const auto notes = stub_->Notes(&context, &reply);
    BenchRpc::Text text;
    for (unsigned i = 0; i < count; ++i) {
      text.set_text(noteText());
      notes->Write(text);
    }
    text.set_text(requestText());
    notes->Write(text);
    notes->WritesDone();
    succeed(notes->Finish());
    check(reply.text());
  }

 private:
  static void succeed(const grpc::Status& status) {
    if (!status.ok()) {
      throw std::runtime_error(status.error_message());
    }
  }

  const std::unique_ptr<BenchRpc::Bench::Stub> stub_;
};

}  // namespace

}  // namespace Bench

int main(int argc, char** argv) {
  return Bench::runPeer<Bench::GrpcClient>(argc, argv, Bench::serve);
}
