// check: each line of a file, judged.

#include <cstddef>
#include <cstdint>
#include <string>

#include "tool/Json.h"
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
  const bool server = !judged.endsServer.empty();
  const bool client = !judged.endsClient.empty();
  if (!judged.notJson.empty()) {
    return "not JSON: " + judged.notJson;
  }
  if (server || client) {
    return std::string("would end a ") +
           (!server  ? "client that waits for a reply"
            : client ? "server, and a client that waits for a reply"
                     : "server") +
           ": " + (server ? judged.endsServer : judged.endsClient);
  }
  if (!judged.fits()) {
    return "too long: a record carries " + std::to_string(kLargestText) + " bytes";
  }
  return judged.notification == Switch::kSwallowed
             ? "servers swallow it without an answer: \"notification\" is no boolean"
             : "";
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

void print(const Lint& judged, const Verdict& verdict, std::size_t line) {
  const bool good = verdict.fault.empty();
  const bool isJson = judged.notJson.empty();
  if (wantsJson()) {
    return printJson(Tovik::object("line", line, "good", good, "bytes",
                                   when(isJson, judged.compact.size()), "kind",
                                   when(isJson, verdict.kind), "status", judged.replyStatus,
                                   "fault", when(!good, verdict.fault)));
  }
  std::string text =
      "line " + std::to_string(line) + ": " + painted(good ? "good" : "bad", good ? "32" : "31");
  if (isJson) {
    text += ", " + counted(judged.compact.size(), "byte") + ", " + verdict.kind;
    text += judged.replyStatus ? " with status " + std::to_string(*judged.replyStatus) : "";
  }
  printLine(good ? text : text + ", " + verdict.fault);
}

void check(const CheckOptions& options) {
  Run run(Ending::kIsFailure);
  std::uint64_t checked = 0;
  std::uint64_t faulty = 0;
  const auto take = [&](const std::string& line, std::size_t number) {
    const Lint judged = lint(line);
    const Verdict verdict = judge(judged, options.reply);
    ++checked;
    faulty += verdict.fault.empty() ? 0 : 1;
    print(judged, verdict, number);
  };
  if (options.what.rfind('{', 0) == 0 || options.what.rfind('[', 0) == 0) {
    take(options.what, 1);
  } else {
    Lines lines(run, options.what);
    while (const auto line = lines.next()) {
      take(*line, lines.number());
    }
  }
  if (checked == 0) {
    throw Failure(Exit::kUsage, "there is no message to check; give one on each line.");
  }
  if (faulty > 0) {
    throw Failure(Exit::kUsage, std::to_string(faulty) + " of " + counted(checked, "message") +
                                    " must not be sent.");
  }
}

}  // namespace

void addCheck(CLI::App& program) {
  auto [verb, options] = addVerb(
      program, "check", "lints messages, one a line",
      "Checks each line of the file: is it JSON, an object, short enough for a record, a "
      "notification switch or a reply, and would it end a process that receives it? An argument "
      "that begins like JSON is the message itself, not a file. Without an argument, standard "
      "input is read.",
      check);
  verb.argument("[FILE]", text(options.what))
      .flag("--reply", options.reply, "judge the lines as answers to a call");
}

}  // namespace tool
