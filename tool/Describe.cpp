// describe: {"command":"describe","id":1} -> replies, the last one without "more" -> a page or
// JSON.

#include <string>

#include "tool/Json.h"
#include "tool/Output.h"
#include "tool/Session.h"
#include "tool/Verb.h"

namespace tool {

namespace {

using Value = rapidjson::Value;

std::string shown(const Value& object, const char* name) {
  return escaped(Tovik::get<std::string>(object, name).value_or(""));
}

/// The members of a list, as far as there are any.
rapidjson::Value::ConstArray entriesOf(const Value& object, const char* list) {
  static const Value none(rapidjson::kArrayType);
  const Value* const found = Tovik::find(object, list);
  return (found != nullptr && found->IsArray() ? *found : none).GetArray();
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
    const Value* const result = Tovik::find(judged.message, "result");
    if (*judged.replyStatus != 0 || result == nullptr || !result->IsObject()) {
      throw Failure(Exit::kStatus, "the server " + inQuotes(name()) +
                                       " does not describe itself; it answered with status " +
                                       std::to_string(*judged.replyStatus) + ".");
    }
    merge(*result);
    complete_ = Tovik::get<bool>(judged.message, "more") != true;
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

void printEntry(const std::string& indent, const Value& entry, const std::string& note = {}) {
  const std::string description = shown(entry, "description");
  printLine(indent + painted(shown(entry, "name"), "1") + (note.empty() ? "" : " (" + note + ")") +
            (description.empty() ? "" : ": " + description));
}

void printPage(const Value& whole) {
  const std::string description = shown(whole, "description");
  printLine(shown(whole, "name") + (description.empty() ? "" : ": " + description));
  for (const Value& command : entriesOf(whole, "commands")) {
    printEntry("  ", command);
    for (const Value& argument : entriesOf(command, "arguments")) {
      const bool needed = Tovik::get<bool>(argument, "required") == true;
      printEntry("    ", argument, shown(argument, "type") + (needed ? "" : ", optional"));
    }
  }
  for (const Value& topic : entriesOf(whole, "topics")) {
    printEntry("  ", topic, "topic");
  }
}

void describe(const std::string& name) {
  Run run(Ending::kIsFailure);
  Describer describer(name);
  describer.await(run, [&] { return describer.complete(); });
  wantsJson() ? printJson(describer.whole()) : printPage(describer.whole());
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
