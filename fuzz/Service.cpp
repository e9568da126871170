// Records into a service. Nothing ends the process; each record has its one reply, unless all
// events are switched on; and a call still works behind whatever has come before it.

#include "Api/Service/Service.h"

#include "fuzz/Reader.h"
#include "fuzz/Support.h"

using namespace fuzz;

namespace {

const std::string kName = uniqueName();

class Conversation {
 public:
  Conversation()
      : service_(kName, [](int, unsigned, unsigned) { return true; }), peer_(rawConnect(kName)) {
    service_.command("ping", "Answers.", {}, [](Tovik::Request request) { request.reply(); });
    service_.command(
        "echo", "Gives back.",
        {Tovik::required<Tovik::Message>("value", ""),
         Tovik::optional<std::vector<std::int8_t>>("numbers", "")},
        [](Tovik::Request request) { request.reply(request.get<Tovik::Message>("value")); });
    service_.command("get", "Looks at what was not declared.", {}, [](Tovik::Request request) {
      request.reply(request.get<std::vector<std::optional<std::uint16_t>>>("value"));
    });
    service_.topic("t", {"Events.", Tovik::Topic::kKeepLast});
    turnUntilIdle();
  }

  void run(std::string_view input) {
    for (const Batch& batch : batchesOf(input)) {
      for (const std::string& record : batch) {
        require(sendRecord(peer_.get(), record) == 0, "the peer cannot send");
        turnUntilIdle();
        require(service_.publish("t", Tovik::object("n", 1)) == 0, "not published");
        if (record.empty()) {
          return require(service_.sessions() == 0, "the end was not seen");
        }
        expectReplyTo(record);
      }
    }
    require(sendRecord(peer_.get(), R"({"command":"ping","id":4711})") == 0,
            "the peer cannot call");
    turnUntilIdle();
    require(repliesWaiting() == 1 && last_ == R"({"type":"reply","status":0,"id":4711})",
            "no answer at the end, but " + last_);
  }

 private:
  void expectReplyTo(const std::string& record) {
    const Text seen = read(record.size() > 4094 ? "" : record);
    const int replies = repliesWaiting();
    const bool isSwitch = seen.root == Text::Root::kObject && seen.command.string == "set" &&
                          seen.notification.kind != Value::Kind::kAbsent;
    const bool on = seen.notification.kind == Value::Kind::kTrue;
    const bool swallowed = isSwitch && !on && seen.notification.kind != Value::Kind::kFalse;
    const int least = allOn_ || swallowed || seen.huge ? 0 : 1;
    require(least <= replies && replies <= 1, std::to_string(replies) + " replies to " + record);
    if (isSwitch && !swallowed) {
      allOn_ = on;
    }
  }

  int repliesWaiting() {
    int replies = 0;
    for (std::string record; (record = rawReceiveNow(peer_.get())) != "<nothing>";) {
      require(record.size() <= 4094, "a record too long");
      const Text text = read(record);
      require(text.huge || text.type.is("event") || text.type.is("reply"), "not ours: " + record);
      if (!text.type.is("event")) {
        ++replies;
        last_ = record;
      }
    }
    return replies;
  }

  Tovik::Service service_;
  const Fd peer_;
  bool allOn_ = false;
  std::string last_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  return converse<Conversation>(data, size);
}
