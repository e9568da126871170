// describe: {"command":"describe","id":1} -> replies, the last one without "more" -> a page or
// JSON.

#include <string>
#include <vector>

#include "tool/Json.h"
#include "tool/Output.h"
#include "tool/Session.h"
#include "tool/Verb.h"

namespace tool {

namespace {

using Value = rapidjson::Value;

std::string shown(const Value& object, const char* name) {
  return escaped(textOf(memberOf(object, name)));
}

/// The members of a list, as far as there are any.
std::vector<const Value*> entriesOf(const Value& object, const char* list) {
  std::vector<const Value*> entries;
  const Value& found = memberOf(object, list);
  if (found.IsArray()) {
    for (const Value& entry : found.GetArray()) {
      entries.push_back(&entry);
    }
  }
  return entries;
}

/// Asks, and puts the answers together: long lists come in several replies.
class Describer : public Session {
 public:
  using Session::Session;

  bool complete() const { return complete_; }
  const Tovik::Message& whole() const { return whole_; }

 private:
  /// With an id, without which a service gives no answer in parts.
  void connected() override { send(R"({"command":"describe","id":1})"); }

  void received(std::string record) override {
    const Lint judged = lint(asRead(record));
    if (!judged.replyStatus) {
      throw Failure(Exit::kNotUnderstood,
                    "the answer " + inQuotes(record.substr(0, 80)) + " is no reply.");
    }
    const Value& result = memberOf(judged.message, "result");
    if (*judged.replyStatus != 0 || !result.IsObject()) {
      throw Failure(Exit::kStatus, "the server " + inQuotes(name()) +
                                       " does not describe itself; it answered with status " +
                                       std::to_string(*judged.replyStatus) + ".");
    }
    merge(result);
    complete_ = !memberOf(judged.message, "more").IsTrue();
  }

  void merge(const Value& part) {
    auto& memory = whole_.GetAllocator();
    for (const auto& member : part.GetObject()) {
      const auto known = whole_.FindMember(member.name);
      if (known == whole_.MemberEnd()) {
        whole_.AddMember(Value(member.name, memory), Value(member.value, memory), memory);
      } else if (known->value.IsArray() && member.value.IsArray()) {
        for (const Value& entry : member.value.GetArray()) {
          known->value.PushBack(Value(entry, memory), memory);
        }
      }
    }
  }

  Tovik::Message whole_{rapidjson::kObjectType};
  bool complete_ = false;
};

void printEntry(Output& output, const Value& entry, const std::string& indent,
                const std::string& note = {}) {
  const std::string description = shown(entry, "description");
  output.line("  " + indent + painted(shown(entry, "name"), "1", output.colour()) +
              (note.empty() ? "" : " (" + note + ")") +
              (description.empty() ? "" : ": " + description));
}

void printPage(Output& output, const Value& whole) {
  const std::string description = shown(whole, "description");
  output.line(shown(whole, "name") + (description.empty() ? "" : ": " + description));
  for (const Value* command : entriesOf(whole, "commands")) {
    printEntry(output, *command, "");
    for (const Value* argument : entriesOf(*command, "arguments")) {
      const bool needed = memberOf(*argument, "required").IsTrue();
      printEntry(output, *argument, "  ", shown(*argument, "type") + (needed ? "" : ", optional"));
    }
  }
  for (const Value* topic : entriesOf(whole, "topics")) {
    printEntry(output, *topic, "", "topic");
  }
}

void describe(const std::string& name) {
  Run run(Ending::kIsFailure);
  Describer describer(name);
  const double limit = common.timeLimit();
  run.within(
      limit, [&] { return describer.complete(); }, [&] { return describer.lateText(limit); });
  Output output;
  output.json() ? output.message(Tovik::Message::toStr(describer.whole(), false).data())
                : printPage(output, describer.whole());
}

}  // namespace

void addDescribe(CLI::App& program) {
  auto [verb, server] = addVerb(
      program, "describe", "prints what a service says about itself",
      "Asks with {\"command\":\"describe\"}, and prints the commands with their arguments, and the "
      "topics. The time-out is 5 seconds.",
      describe);
  verb.argument(kName, name(server));
}

}  // namespace tool
