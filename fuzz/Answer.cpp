// Answers into the blocking client's wait for a reply. If the first byte is a 1, the client sends a
// message before each wait.

#include <sys/socket.h>

#include "Api/Json/Client.h"
#include "fuzz/Reader.h"
#include "fuzz/Support.h"

using namespace fuzz;

namespace {

/// What came out of one wait.
struct Outcome {
  std::string text;  // "status N", "throws ...", or "" after an assertion
  std::string stop;
};

Outcome wait(const Tovik::Client& client, bool asking) {
  Outcome outcome;
  try {
    outcome.stop = stoppedBy([&] {
      Tovik::Message question;
      question.SetObject();
      outcome.text =
          "status " + std::to_string(asking ? client.sendMsg(question, true) : client.waitAck());
    });
  } catch (const Tovik::SocketException& error) {
    outcome.text = std::string("throws ") + error.what();
  }
  return outcome;
}

Outcome predicted(const std::string& record, const Text& seen, std::vector<std::string>& log) {
  if (record.empty()) {
    return {"throws Broken pipe", ""};
  }
  switch (atClient(seen)) {
    case AtClient::kInvalid:
      log = {"0 waitAck: Client::waitAck(): message isn't valid JSON"};
      break;
    case AtClient::kStops:
      return {"", std::string(failedCondition(seen))};
    case AtClient::kNoReply:
      log = {"0 waitAck: Client::waitAck(): message isn't valid ack"};
      break;
    case AtClient::kBadStatus:
      log = {"0 waitAck: Client::waitAck(): invalid status " +
             std::to_string(static_cast<std::int32_t>(seen.status.number))};
      break;
    case AtClient::kStatus:
      return {"status " + std::to_string(seen.status.number), ""};
  }
  return {"status -1", ""};
}

class Conversation {
 public:
  Conversation() : client_(listener().name.c_str()), server_(listener().accept()) {}

  void run(std::string_view input) {
    const bool asking = takeMark(input);
    for (const Batch& batch : batchesOf(input)) {
      sendBatch(server_.get(), batch);
      for (const std::string& record : batch) {
        if (!step(record, asking)) {
          return;
        }
      }
    }
    ::shutdown(server_.get(), SHUT_RDWR);
    requireEqual(wait(client_, false).text, "throws Broken pipe", "the end");
  }

 private:
  /// False after what ends the process.
  bool step(const std::string& record, bool asking) {
    const Text seen = read(cutText(record));
    if (seen.huge) {
      return false;
    }
    std::vector<std::string> lines;
    const Outcome expected = predicted(record, seen, lines);
    const Outcome actual = wait(client_, asking);
    requireEqual(actual.stop, expected.stop, "the assertion");
    requireEqual(actual.text, expected.text, "the outcome");
    log_.expect(lines);
    requireEqual(rawReceiveNow(server_.get()), asking ? "{}" : "<nothing>", "the question");
    return expected.stop.empty();
  }

  Log log_;
  Tovik::Client client_;
  const Fd server_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  return converse<Conversation>(data, size);
}
