// call: message -> reply -> status, one after the other.

#include <algorithm>
#include <memory>

#include "tool/Lines.h"
#include "tool/Output.h"
#include "tool/Session.h"
#include "tool/Verb.h"

namespace tool {

namespace {

struct CallOptions {
  std::string name;
  std::string text = "-";
  std::vector<std::uint32_t> ok;
  bool statusOnly = false;
  bool any = false;
};

class Call {
 public:
  Call(const CallOptions& options, const Common& common)
      : options_(options),
        common_(common),
        output_(common),
        source_(options.text, 1, [this](const std::string* message) { take(message); }),
        deadline_(common.timeLimit(5), [this] { return late(); }) {}

  void run() {
    source_.want();
    run_.untilFinished();
  }

 private:
  class Caller;

  void take(const std::string* message);
  void answer(const std::string& record);
  bool expected(const std::string& record, const Tovik::Message& reply) const;
  void print(std::string_view record, const Tovik::Message& reply, unsigned status);
  void note(const Tovik::Message& reply, unsigned status);
  void finish();
  bool allowed(unsigned status) const;
  std::string late() const;

  const CallOptions& options_;
  const Common& common_;
  Output output_;
  Run run_{Ending::kIsFailure};
  MessageSource source_;
  Deadline deadline_;
  std::unique_ptr<Caller> caller_;  // made for the first message: bad input connects to nothing
  std::string id_;                  // of the message that waits for its answer, as JSON
  std::uint64_t answers_ = 0;
  std::uint64_t disallowed_ = 0;
  std::string lastDisallowed_;  // the status
  std::string lastError_;       // and what the server said about it
};

class Call::Caller : public Session {
 public:
  Caller(Call& call, const std::string& name, const Common& common)
      : Session(name, common), call_(call) {}

  void ask(const std::string& message) {
    if (closed_) {
      throw lostFailure();
    }
    waiting_ = true;
    send(message);
  }

  void goOnWaiting() { waiting_ = true; }

 private:
  void connected() override {}

  void received(std::string record) override {
    if (!waiting_) {
      return notice("the server sent " + inQuotes(record) +
                    " unasked; 'tovik monitor' subscribes.");
    }
    waiting_ = false;
    call_.answer(record);
  }

  void lost(int /*error*/) override {
    if (waiting_) {
      throw lostFailure();
    }
    closed_ = true;  // which only matters if there is another message
  }

  Call& call_;
  bool closed_ = false;
  bool waiting_ = false;
};

std::string Call::late() const {
  return caller_->lateText(common_.timeLimit(5));
}

/// The "id" member as JSON text; empty without one.
std::string idOf(const Tovik::Message& message) {
  const auto found = message.FindMember("id");
  if (found == message.MemberEnd()) {
    return {};
  }
  Tovik::Message id;
  id.CopyFrom(found->value, id.GetAllocator());
  return Tovik::Message::toStr(id, false).data();
}

bool isTrue(const Tovik::Message& message, const char* name) {
  const auto found = message.FindMember(name);
  return found != message.MemberEnd() && found->value.IsTrue();
}

void Call::take(const std::string* message) {
  if (message == nullptr) {
    return finish();
  }
  if (!caller_) {
    caller_ = std::make_unique<Caller>(*this, options_.name, common_);
  }
  id_ = idOf(messageFrom(*message));
  deadline_.restart();
  caller_->ask(*message);
}

void Call::answer(const std::string& record) {
  const Lint judged = lint(asRead(record));
  const Tovik::Message reply = messageFrom(judged.isObject() ? judged.compact : "{}");
  if (!judged.replyStatus && !options_.any) {
    output_.line(escaped(record));
    const std::string why = !judged.notJson.empty()      ? "it is not JSON: " + judged.notJson
                            : !judged.endsClient.empty() ? judged.endsClient
                                                         : judged.noReply;
    throw Failure(Exit::kNotUnderstood,
                  "the answer is no reply (" + why + "); --any takes it for one.");
  }
  if (!expected(record, reply)) {
    return caller_->goOnWaiting();
  }
  const unsigned status = judged.replyStatus.value_or(0);
  if (judged.replyStatus) {
    print(asRead(record), reply, status);
  } else {
    judged.notJson.empty() ? output_.message(asRead(record)) : output_.line(escaped(record));
  }
  if (isTrue(reply, "more")) {
    deadline_.restart();
    return caller_->goOnWaiting();
  }
  deadline_.disarm();
  ++answers_;
  note(reply, status);
  source_.want();
}

/// A reply with an id answers the message of that id; what else comes meanwhile is only reported.
bool Call::expected(const std::string& record, const Tovik::Message& reply) const {
  if (id_.empty() || idOf(reply) == id_) {
    return true;
  }
  notice("the server sent " + inQuotes(record) + ", which answers another call.");
  return false;
}

void Call::print(std::string_view record, const Tovik::Message& reply, unsigned status) {
  const auto result = reply.FindMember("result");
  if (options_.statusOnly) {
    output_.line(std::to_string(status));
  } else if (output_.json()) {
    output_.message(record);
  } else if (result != reply.MemberEnd()) {
    Tovik::Message value;
    value.CopyFrom(result->value, value.GetAllocator());
    output_.message(value);
  } else {
    output_.line("status " +
                 painted(std::to_string(status), allowed(status) ? "32" : "31", output_.colour()));
  }
}

void Call::note(const Tovik::Message& reply, unsigned status) {
  if (allowed(status) || options_.any) {
    return;
  }
  ++disallowed_;
  lastDisallowed_ = std::to_string(status);
  const auto error = reply.FindMember("error");
  lastError_ = error != reply.MemberEnd() && error->value.IsString()
                   ? ": " + escaped({error->value.GetString(), error->value.GetStringLength()})
                   : "";
}

bool Call::allowed(unsigned status) const {
  const auto& ok = options_.ok;
  return ok.empty() ? status == 0 : std::find(ok.begin(), ok.end(), status) != ok.end();
}

void Call::finish() {
  if (disallowed_ > 0) {
    const std::string what = answers_ == 1
                                 ? "the server answered with status "
                                 : std::to_string(disallowed_) + " of " + std::to_string(answers_) +
                                       " answers had a status that is not allowed, the last one ";
    throw Failure(Exit::kStatus, what + lastDisallowed_ + lastError_ +
                                     "; if that is a success, say --ok " + lastDisallowed_ + ".");
  }
  run_.finish();
}

}  // namespace

void addCall(Program& program) {
  const auto run = [](const CallOptions& options, const Common& common) {
    Call(options, common).run();
  };
  auto [verb, options] = program.verb<CallOptions>(
      "call", "sends messages and waits for each reply",
      "Sends one message, or each line of standard input as one, waits for the reply before the "
      "next, and prints its result, or its status if it has none. A line that must not be sent "
      "ends the command there; a file as standard input is looked through before anything is "
      "sent. The time-out, 5 seconds, is for each reply.",
      run);
  verb.argument(kName, Needed::kYes, name(options.name))
      .argument("JSON", Needed::kNo, text(options.text))
      .option("--ok", "N", number(options.ok, 0, 2147483647U),
              "take status N for success (repeatable; 0 unless given)")
      .flag("--status-only", options.statusOnly, "print the status as a bare number")
      .flag("--any", options.any, "take any record for an answer, and print it");
}

}  // namespace tool
