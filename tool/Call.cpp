// call: message -> reply -> status, one after the other. send: the messages alone, and then a look
// whether the server has read the last one.

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tool/Json.h"
#include "tool/Lines.h"
#include "tool/Output.h"
#include "tool/Session.h"
#include "tool/Verb.h"

namespace tool {

namespace {

/// The messages to send: one from the command line, some number of times, or those of standard
/// input, each from the beginning of a line; looked at before they are handed out. A file as
/// standard input is looked through first.
class Messages {
 public:
  Messages(Run& run, const std::string& text, std::uint64_t copies) : run_(run), copies_(copies) {
    if (text != "-") {
      text_ = sendable(text, "the message");
      return;
    }
    struct stat status {};
    lines_.emplace(run_, text);
    if (::fstat(STDIN_FILENO, &status) == 0 && S_ISREG(status.st_mode)) {
      const off_t at = ::lseek(STDIN_FILENO, 0, SEEK_CUR);
      while (read()) {
      }
      ::lseek(STDIN_FILENO, at, SEEK_SET);
      lines_.emplace(run_, text);
    }
  }

  /// The next one, as the library sends it; nothing at the end.
  std::optional<std::string> next() {
    if (!lines_) {
      return copies_-- > 0 ? std::optional(text_) : std::nullopt;
    }
    auto message = read();
    if (!message && handedOut_ == 0) {
      throw Failure(Exit::kUsage,
                    "there is no message to send; give one, or one on each line of standard "
                    "input.");
    }
    ++handedOut_;
    return message;
  }

 private:
  std::optional<std::string> read() {
    constexpr std::size_t kLongest = 1 << 16;
    std::string text;
    std::size_t number = 0;
    while (const auto line = lines_->next()) {
      number = text.empty() ? lines_->number() : number;
      text += (text.empty() ? "" : "\n") + *line;
      if (!lint(text).cutShort || text.size() > kLongest) {
        break;
      }
    }
    if (text.empty()) {
      return std::nullopt;
    }
    const std::string before =
        handedOut_ == 0 ? "" : " (" + counted(handedOut_, "message") + " went out before)";
    return sendable(text, "line " + std::to_string(number) + " of the input" + before);
  }

  Run& run_;
  std::string text_;      // what the command line holds
  std::uint64_t copies_;  // how often it is to be handed out yet
  std::size_t handedOut_ = 0;
  std::optional<Lines> lines_;  // or where the messages come from instead
};

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

/// The connection, and what the answers come to.
class Caller : public Session {
 public:
  explicit Caller(const CallOptions& options) : Session(options.name), options_(options) {}

  /// A reply with an id answers the message of that id; what else comes meanwhile is only reported.
  /// Replies with "more" are followed by others, each of which has its time.
  void ask(const std::string& message, Run& run) {
    if (closed_) {
      throw lostFailure();
    }
    id_ = memberText(message, "id");
    waiting_ = true;
    send(message);
    while (waiting_) {
      came_ = false;
      await(run, [this] { return came_; });
    }
  }

  /// @throws Failure if a status was not allowed.
  void judge() const {
    if (disallowed_ > 0) {
      throw Failure(
          Exit::kStatus,
          (answers_ == 1 ? "the server answered with status "
                         : std::to_string(disallowed_) + " of " + std::to_string(answers_) +
                               " answers had a status that is not allowed, the last "
                               "one ") +
              last_ + (error_.empty() ? "" : ": " + error_) + "; if that is a success, say --ok " +
              last_ + ".");
    }
  }

 private:
  void received(std::string record) override {
    if (!waiting_) {
      return notice("the server sent " + inQuotes(record) +
                    " unasked; 'tovik monitor' subscribes.");
    }
    came_ = true;
    const Lint judged = lint(asRead(record));
    if (!options_.any) {
      requireReply(record, judged);
    }
    if (!id_.empty() && memberText(judged.compact, "id") != id_) {
      return notice("the server sent " + inQuotes(record) + ", which answers another call.");
    }
    print(record, judged);
    waiting_ = memberText(judged.compact, "more") == "true";
    if (!waiting_) {
      ++answers_;
    }
    if (!waiting_ && !options_.allows(judged.replyStatus)) {
      ++disallowed_;
      last_ = std::to_string(*judged.replyStatus);
      error_ = escaped(Tovik::get<std::string>(judged.message, "error").value_or(""));
    }
  }

  static void requireReply(const std::string& record, const Lint& judged) {
    if (judged.replyStatus) {
      return;
    }
    printLine(escaped(record));
    const std::string why = !judged.notJson.empty()      ? "it is not JSON: " + judged.notJson
                            : !judged.endsClient.empty() ? judged.endsClient
                                                         : judged.noReply;
    throw Failure(Exit::kNotUnderstood,
                  "the answer is no reply (" + why + "); --any takes it for one.");
  }

  void print(const std::string& record, const Lint& judged) const {
    const std::string json = judged.notJson.empty() ? rewritten(asRead(record)) : "";
    const std::string status = std::to_string(judged.replyStatus.value_or(0));
    const auto result = judged.replyStatus ? memberText(json, "result") : "";
    if (json.empty()) {
      printLine(escaped(record));
    } else if (options_.statusOnly && judged.replyStatus) {
      printLine(status);
    } else if (wantsJson() || !judged.replyStatus) {
      printJson(json);
    } else if (!result.empty()) {
      printJson(result);
    } else {
      printLine("status " + painted(status, options_.allows(judged.replyStatus) ? "32" : "31"));
    }
  }

  void lost(int /*error*/) override {
    if (waiting_) {
      throw lostFailure();
    }
    closed_ = true;  // which only matters if there is more to come
  }

  const CallOptions& options_;
  std::string id_;
  bool waiting_ = false;
  bool came_ = false;
  bool closed_ = false;
  std::uint64_t answers_ = 0;
  std::uint64_t disallowed_ = 0;
  std::string last_;  // the status that is not allowed
  std::string error_;
};

void call(const CallOptions& options) {
  Run run(Ending::kIsFailure);
  Messages messages(run, options.text, 1);
  std::optional<Caller> caller;  // made for the first message: bad input connects to nothing
  while (const auto message = messages.next()) {
    if (!caller) {
      caller.emplace(options);
    }
    caller->ask(*message, run);
  }
  if (caller) {
    caller->judge();
  }
}

struct SendOptions {
  std::string name;
  std::string text = "-";
  std::optional<std::uint64_t> count;
  std::optional<double> interval;
};

/// A server loses what it has not read when its client closes with replies unread, so the replies
/// are read, and dropped, until then.
class Sender : public Session {
 public:
  using Session::Session;

  bool wroteAll() const {
    if (closed_) {
      throw lostFailure();
    }
    return isAttached() && allWritten();
  }
  bool done() const { return closed_ || allTaken(); }

  std::string lateText() const override {
    return full() ? Session::lateText()
                  : "the server " + inQuotes(name()) + " did not read on within " +
                        secondsText(common.timeLimit()) + "; give it more with --timeout.";
  }

 private:
  void received(std::string /*reply*/) override {}

  void lost(int error) override {
    if (error != 0) {
      throw lostFailure();
    }
    closed_ = true;  // after it had read everything so far
  }

  bool closed_ = false;
};

void sendAll(const SendOptions& options) {
  constexpr double kLookAgain = 0.005;
  Run run(Ending::kIsFailure);
  Messages messages(run, options.text, options.count.value_or(1));
  Sender sender(options.name);
  const auto wroteAll = [&] { return sender.wroteAll(); };
  sender.await(run, wroteAll);  // there is a connection
  for (std::uint64_t sent = 0; sent != options.count; ++sent) {
    const auto message = messages.next();
    if (!message) {
      break;
    }
    run.pause(sent == 0 ? 0 : options.interval.value_or(0));
    wroteAll();
    sender.send(*message);
    sender.await(run, wroteAll);
  }
  sender.await(
      run, [&] { return sender.done(); }, kLookAgain);
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

void addSend(CLI::App& program) {
  auto [verb, options] = addVerb(program, "send", "sends messages without waiting for replies",
                                 "Ends when the server has read all of them. The time-out, 5 "
                                 "seconds, is for the server to take each message.",
                                 sendAll);
  verb.argument(kName, name(options.name))
      .argument("[JSON]", text(options.text))
      .option("--count", "N", number(options.count, 1, UINT64_MAX),
              "send the message N times, or at most N lines")
      .option("--interval", "SECONDS", seconds(options.interval), "pause between two messages");
}

}  // namespace tool
