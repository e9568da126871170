// call: message -> reply -> status, one after the other.

#include <algorithm>
#include <memory>

#include "tool/Lines.h"
#include "tool/Output.h"
#include "tool/Run.h"
#include "tool/Session.h"
#include "tool/Verbs.h"

namespace tool {

namespace {

class Call {
 public:
  explicit Call(const Options& options)
      : options_(options),
        output_(options),
        source_(options, [this](Tovik::Message* message) { take(message); }),
        deadline_(timeLimit(options, 5), [&options] {
          return "the server " + inQuotes(options.name) + " did not answer within " +
                 seconds(timeLimit(options, 5)) + "; give it more with --timeout.";
        }) {
    source_.want();
  }

  Exit result() { return run_.untilFinished(); }

 private:
  class Caller;

  void take(Tovik::Message* message);
  void answer(const std::string& record);
  void print(const std::string& record, unsigned status);
  void finish();
  bool allowed(unsigned status) const;

  const Options& options_;
  Output output_;
  Run run_{Ending::kIsFailure};
  MessageSource source_;
  Deadline deadline_;
  std::unique_ptr<Caller> caller_;  // made for the first message: bad input connects to nothing
  std::uint64_t answers_ = 0;
  std::uint64_t disallowed_ = 0;
  unsigned lastDisallowed_ = 0;
};

class Call::Caller : public Session {
 public:
  Caller(Call& call, const Options& options) : Session(options.name, options), call_(call) {}

  void send(Tovik::Message message) {
    if (closed_) {
      throw lostFailure();
    }
    waiting_ = true;
    if (isAttached()) {
      asyncSendMsg(message);
    } else {
      first_ = std::move(message);
    }
  }

 private:
  void connected() override { asyncSendMsg(first_); }

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
  Tovik::Message first_;
  bool waiting_ = false;
};

void Call::take(Tovik::Message* message) {
  if (message == nullptr) {
    return finish();
  }
  if (!caller_) {
    caller_ = std::make_unique<Caller>(*this, options_);
  }
  deadline_.restart();
  caller_->send(std::move(*message));
}

void Call::answer(const std::string& record) {
  deadline_.disarm();
  ++answers_;
  const Lint judged = lint(asRead(record));
  if (!judged.replyStatus) {
    output_.line(escaped(record));
    const std::string why = !judged.notJson.empty()      ? "it is not JSON: " + judged.notJson
                            : !judged.endsClient.empty() ? judged.endsClient
                                                         : judged.noReply;
    throw Failure(Exit::kNotUnderstood, "the answer is no reply (" + why +
                                            "); see with 'tovik check --reply' what the server "
                                            "should send.");
  }
  print(record, *judged.replyStatus);
  if (!allowed(*judged.replyStatus)) {
    ++disallowed_;
    lastDisallowed_ = *judged.replyStatus;
  }
  source_.want();
}

void Call::print(const std::string& record, unsigned status) {
  if (options_.statusOnly) {
    output_.line(std::to_string(status));
  } else if (output_.json()) {
    output_.message(messageFrom(asRead(record)));
  } else {
    output_.line("status " +
                 painted(std::to_string(status), allowed(status) ? "32" : "31", output_.colour()));
  }
}

bool Call::allowed(unsigned status) const {
  const auto& ok = options_.okStatuses;
  return ok.empty() ? status == 0 : std::find(ok.begin(), ok.end(), status) != ok.end();
}

void Call::finish() {
  if (disallowed_ > 0) {
    const std::string status = std::to_string(lastDisallowed_);
    const std::string what =
        answers_ == 1 ? "the server answered with status " + status
                      : std::to_string(disallowed_) + " of " + std::to_string(answers_) +
                            " answers had a status that is not allowed, the last one " + status;
    throw Failure(Exit::kStatus, what + "; if that is a success, say --ok " + status + ".");
  }
  run_.finish(Exit::kSuccess);
}

}  // namespace

Exit runCall(const Options& options) {
  return Call(options).result();
}

}  // namespace tool
