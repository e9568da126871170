// check: each line of a file, judged.

#include "tool/Lines.h"
#include "tool/Output.h"
#include "tool/Run.h"
#include "tool/Verbs.h"

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

class Check {
 public:
  Check(const Options& options, Run& run)
      : options_(options),
        run_(run),
        output_(options),
        lines_(options.file, [this](const auto& line) { take(line); }) {
    lines_.want();
  }

 private:
  void take(const std::optional<std::string>& line) {
    if (!line) {
      return finish();
    }
    if (!isBlank(*line)) {
      const Lint judged = lint(*line);
      const Verdict verdict = judge(judged, options_.reply);
      ++checked_;
      faulty_ += verdict.fault.empty() ? 0 : 1;
      print(judged, verdict);
    }
    lines_.want();
  }

  void print(const Lint& judged, const Verdict& verdict) {
    if (output_.json()) {
      return output_.message(objectOf(judged, verdict));
    }
    const bool good = verdict.fault.empty();
    std::string text = "line " + std::to_string(lines_.number()) + ": " +
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
    addNumber(object, "line", static_cast<std::uint64_t>(lines_.number()));
    addNumber(object, "good", verdict.fault.empty());
    if (judged.notJson.empty()) {
      addNumber(object, "bytes", static_cast<std::uint64_t>(judged.compact.size()));
      addString(object, "kind", verdict.kind);
    }
    if (judged.replyStatus) {
      addNumber(object, "status", *judged.replyStatus);
    }
    if (!verdict.fault.empty()) {
      addString(object, "fault", verdict.fault);
    }
    return object;
  }

  void finish() {
    if (checked_ == 0) {
      throw Failure(Exit::kUsage, "there is no message to check; give one on each line.");
    }
    if (faulty_ > 0) {
      throw Failure(Exit::kUsage, std::to_string(faulty_) + " of " + counted(checked_, "message") +
                                      " must not be sent; mend what is named above.");
    }
    run_.finish(Exit::kSuccess);
  }

  const Options& options_;
  Run& run_;
  Output output_;
  Lines lines_;
  std::uint64_t checked_ = 0;
  std::uint64_t faulty_ = 0;
};

}  // namespace

Exit runCheck(const Options& options) {
  Run run(Ending::kIsFailure);
  const Check check(options, run);
  return run.untilFinished();
}

}  // namespace tool
