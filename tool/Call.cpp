// call: message -> reply -> status, one after the other.

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tool/Json.h"
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

  bool allows(std::optional<unsigned> status) const {
    return !status || any || (ok.empty() && *status == 0) ||
           std::find(ok.begin(), ok.end(), *status) != ok.end();
  }
};

/// The connection: takes one record for each message.
class Caller : public Session {
 public:
  using Session::Session;

  void ask(const std::string& message) {
    if (closed_) {
      throw lostFailure();
    }
    answer_.reset();
    waiting_ = true;
    send(message);
  }

  /// What comes next.
  std::string answer(Run& run, double limit) {
    run.within(
        limit, [this] { return answer_.has_value(); }, [&] { return lateText(limit); });
    waiting_ = false;
    return std::move(*answer_);
  }

  void goOnWaiting() {
    answer_.reset();
    waiting_ = true;
    if (closed_) {
      throw lostFailure();
    }
  }

 private:
  void received(std::string record) override {
    if (waiting_ && !answer_) {
      answer_ = std::move(record);
    } else {
      notice("the server sent " + inQuotes(record) + " unasked; 'tovik monitor' subscribes.");
    }
  }

  void lost(int /*error*/) override {
    if (waiting_ && !answer_) {
      throw lostFailure();
    }
    closed_ = true;  // which only matters if there is more to come
  }

  std::optional<std::string> answer_;
  bool waiting_ = false;
  bool closed_ = false;
};

void print(const std::string& record, const Lint& judged, const CallOptions& options,
           Output& output) {
  const std::string json = judged.notJson.empty() ? rewritten(asRead(record)) : "";
  const std::string status = std::to_string(judged.replyStatus.value_or(0));
  const auto result = judged.replyStatus ? memberText(json, "result") : "";
  if (json.empty()) {
    output.line(escaped(record));
  } else if (options.statusOnly && judged.replyStatus) {
    output.line(status);
  } else if (output.json() || !judged.replyStatus) {
    output.message(json);
  } else if (!result.empty()) {
    output.message(result);
  } else {
    const bool allowed = options.allows(judged.replyStatus);
    output.line("status " + painted(status, allowed ? "32" : "31", output.colour()));
  }
}

void requireReply(const std::string& record, const Lint& judged, Output& output) {
  if (judged.replyStatus) {
    return;
  }
  output.line(escaped(record));
  const std::string why = !judged.notJson.empty()      ? "it is not JSON: " + judged.notJson
                          : !judged.endsClient.empty() ? judged.endsClient
                                                       : judged.noReply;
  throw Failure(Exit::kNotUnderstood,
                "the answer is no reply (" + why + "); --any takes it for one.");
}

/// A reply with an id answers the message of that id; what else comes meanwhile is only reported.
/// Replies with "more" are followed by others.
Lint answerTo(const std::string& message, Caller& caller, Run& run, const CallOptions& options,
              Output& output) {
  const auto id = memberText(message, "id");
  caller.ask(message);
  while (true) {
    const std::string record = caller.answer(run, common.timeLimit());
    Lint judged = lint(asRead(record));
    if (!options.any) {
      requireReply(record, judged, output);
    }
    const bool expected = id.empty() || memberText(judged.compact, "id") == id;
    if (expected) {
      print(record, judged, options, output);
    } else {
      notice("the server sent " + inQuotes(record) + ", which answers another call.");
    }
    if (expected && memberText(judged.compact, "more") != "true") {
      return judged;
    }
    caller.goOnWaiting();
  }
}

void call(const CallOptions& options) {
  Output output;
  Run run(Ending::kIsFailure);
  Messages messages(run, options.text, 1);
  std::optional<Caller> caller;  // made for the first message: bad input connects to nothing
  std::uint64_t answers = 0;
  std::uint64_t disallowed = 0;
  std::string last;  // the status that is not allowed
  std::string error;
  while (const auto message = messages.next()) {
    if (!caller) {
      caller.emplace(options.name);
    }
    const Lint judged = answerTo(*message, *caller, run, options, output);
    ++answers;
    if (!options.allows(judged.replyStatus)) {
      ++disallowed;
      last = std::to_string(*judged.replyStatus);
      error = escaped(textOf(memberOf(judged.message, "error")));
    }
  }
  if (disallowed > 0) {
    throw Failure(Exit::kStatus,
                  (answers == 1 ? "the server answered with status "
                                : std::to_string(disallowed) + " of " + std::to_string(answers) +
                                      " answers had a status that is not allowed, the last one ") +
                      last + (error.empty() ? "" : ": " + error) +
                      "; if that is a success, say --ok " + last + ".");
  }
}

}  // namespace

void addCall(CLI::App& program) {
  auto [verb, options] = addVerb(
      program, "call", "sends messages and waits for each reply",
      "Sends one message, or those of standard input, each from the beginning of a line; waits for "
      "the reply before the next, and prints its result, or its status if it has none. What must "
      "not be sent ends the command; if standard input is a file, all of it is checked before "
      "anything is sent. The time-out, 5 seconds, is for each reply.",
      call);
  verb.argument(kName, name(options.name))
      .argument("[JSON]", text(options.text))
      .option("--ok", "N", number(options.ok, 0, 2147483647U),
              "take status N for success (repeatable; 0 unless given)")
      .flag("--status-only", options.statusOnly, "print the status as a bare number")
      .flag("--any", options.any, "take any record for an answer, and print it");
}

}  // namespace tool
