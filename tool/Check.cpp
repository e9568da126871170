// check: each line of a file, judged.

#include "tool/Lines.h"
#include "tool/Output.h"
#include "tool/Run.h"
#include "tool/Verb.h"

namespace tool {

namespace {

struct Verdict {
  const char* kind = "message";
  std::string fault;  // empty if there is none
};

const char* kindOf(const Lint& judged) {
  switch (judged.notification) {
    case Switch::kOn:
      return "notification switch (on)";
    case Switch::kOff:
      return "notification switch (off)";
    case Switch::kSwallowed:
      return "swallowed notification switch";
    case Switch::kNone:
      break;
  }
  return judged.replyStatus ? "reply" : "message";
}

/// The faults of any message, the gravest first.
std::string faultOf(const Lint& judged) {
  if (!judged.notJson.empty()) {
    return "not JSON: " + judged.notJson;
  }
  if (!judged.endsServer.empty() && !judged.endsClient.empty()) {
    return "would end a server, and a client that waits for a reply: " + judged.endsServer;
  }
  if (!judged.endsServer.empty()) {
    return "would end a server: " + judged.endsServer;
  }
  if (!judged.endsClient.empty()) {
    return "would end a client that waits for a reply: " + judged.endsClient;
  }
  if (!judged.fits()) {
    return "too long: a record carries " + std::to_string(kLargestText) + " bytes";
  }
  if (judged.notification == Switch::kSwallowed) {
    return "servers swallow it without an answer: \"notification\" is no boolean";
  }
  return {};
}

Verdict judge(const Lint& judged, bool asReply) {
  Verdict verdict{kindOf(judged), faultOf(judged)};
  if (asReply && judged.notJson.empty() && judged.endsClient.empty() && judged.fits()) {
    verdict.kind = judged.replyStatus ? "reply" : verdict.kind;
    verdict.fault = judged.replyStatus ? "" : "no valid reply: " + judged.noReply;
  }
  return verdict;
}

struct CheckOptions {
  std::string what = "-";
  bool reply = false;
};

class Check {
 public:
  Check(const CheckOptions& options, const Common& common) : options_(options), output_(common) {}

  void run() {
    if (const char first = options_.what.front(); first == '{' || first == '[') {
      take(options_.what);
      return finish();
    }
    Run run(Ending::kIsFailure);
    lines_.emplace(options_.what, [&](const auto& line) {
      if (!line) {
        return run.finish();
      }
      take(*line);
      lines_->want();
    });
    lines_->want();
    run.untilFinished();
    finish();
  }

 private:
  void take(const std::string& line) {
    if (isBlank(line)) {
      return;
    }
    const Lint judged = lint(line);
    const Verdict verdict = judge(judged, options_.reply);
    ++checked_;
    faulty_ += verdict.fault.empty() ? 0 : 1;
    print(judged, verdict);
  }

  std::size_t number() const { return lines_ ? lines_->number() : 1; }

  void print(const Lint& judged, const Verdict& verdict) {
    if (output_.json()) {
      return output_.message(objectOf(judged, verdict));
    }
    const bool good = verdict.fault.empty();
    std::string text = "line " + std::to_string(number()) + ": " +
                       painted(good ? "good" : "bad", good ? "32" : "31", output_.colour());
    if (judged.notJson.empty()) {
      text += ", " + counted(judged.compact.size(), "byte") + ", " + verdict.kind;
      text += judged.replyStatus ? " with status " + std::to_string(*judged.replyStatus) : "";
    }
    output_.line(good ? text : text + ", " + verdict.fault);
  }

  Tovik::Message objectOf(const Lint& judged, const Verdict& verdict) const {
    Tovik::Message object;
    object.SetObject();
    addMember(object, "line", static_cast<std::uint64_t>(number()));
    addMember(object, "good", verdict.fault.empty());
    if (judged.notJson.empty()) {
      addMember(object, "bytes", static_cast<std::uint64_t>(judged.compact.size()));
      addString(object, "kind", verdict.kind);
    }
    if (judged.replyStatus) {
      addMember(object, "status", *judged.replyStatus);
    }
    if (!verdict.fault.empty()) {
      addString(object, "fault", verdict.fault);
    }
    return object;
  }

  void finish() const {
    if (checked_ == 0) {
      throw Failure(Exit::kUsage, "there is no message to check; give one on each line.");
    }
    if (faulty_ > 0) {
      throw Failure(Exit::kUsage, std::to_string(faulty_) + " of " + counted(checked_, "message") +
                                      " must not be sent.");
    }
  }

  const CheckOptions& options_;
  Output output_;
  std::optional<Lines> lines_;
  std::uint64_t checked_ = 0;
  std::uint64_t faulty_ = 0;
};

}  // namespace

void addCheck(Program& program) {
  const auto run = [](const CheckOptions& options, const Common& common) {
    Check(options, common).run();
  };
  auto [verb, options] = program.verb<CheckOptions>(
      "check", "lints messages, one a line",
      "Says of each line of the file whether it is JSON, an object, short enough for a record, a "
      "notification switch or a reply, and whether it would end a process that receives it. What "
      "begins like JSON is no file but the message itself; without either, standard input is read.",
      run);
  verb.argument(kFile, Needed::kNo, text(options.what))
      .flag("--reply", options.reply, "judge the lines as answers to a call");
}

}  // namespace tool
