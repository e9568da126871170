// describe: {"command":"describe"} -> replies, the last one without "more" -> a page or JSON.

#include "tool/Lines.h"
#include "tool/Output.h"
#include "tool/Session.h"
#include "tool/Verb.h"

namespace tool {

namespace {

using Value = rapidjson::Value;

std::string textOf(const Value& object, const char* name) {
  const auto found = object.FindMember(name);
  return found != object.MemberEnd() && found->value.IsString()
             ? escaped({found->value.GetString(), found->value.GetStringLength()})
             : "";
}

/// The objects of a list, as far as there are any.
std::vector<const Value*> entriesOf(const Value& object, const char* list) {
  std::vector<const Value*> entries;
  const auto found = object.FindMember(list);
  if (found != object.MemberEnd() && found->value.IsArray()) {
    for (const Value& entry : found->value.GetArray()) {
      if (entry.IsObject()) {
        entries.push_back(&entry);
      }
    }
  }
  return entries;
}

class Describe : private Session {
 public:
  Describe(const std::string& name, const Common& common)
      : Session(name, common),
        output_(common),
        deadline_(common.timeLimit(5), [this, &common] { return lateText(common.timeLimit(5)); }) {
    deadline_.restart();
  }

  void run() {
    run_.untilFinished();
    output_.json() ? output_.message(whole_) : printPage();
  }

 private:
  void connected() override { send(R"({"command":"describe"})"); }

  void received(std::string record) override {
    const Lint judged = lint(asRead(record));
    if (!judged.replyStatus) {
      throw Failure(Exit::kNotUnderstood,
                    "the answer " + inQuotes(record.substr(0, 80)) + " is no reply.");
    }
    const Tovik::Message reply = messageFrom(judged.compact);
    const auto result = reply.FindMember("result");
    if (*judged.replyStatus != 0 || result == reply.MemberEnd() || !result->value.IsObject()) {
      throw Failure(Exit::kStatus, "the server " + inQuotes(name()) +
                                       " does not describe itself; it answered with status " +
                                       std::to_string(*judged.replyStatus) + ".");
    }
    merge(result->value);
    const auto more = reply.FindMember("more");
    if (more == reply.MemberEnd() || !more->value.IsTrue()) {
      run_.finish();
    }
  }

  /// Long lists come in several replies.
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

  void printPage() {
    const std::string description = textOf(whole_, "description");
    output_.line(textOf(whole_, "name") + (description.empty() ? "" : ": " + description));
    for (const Value* command : entriesOf(whole_, "commands")) {
      printEntry(*command, "");
      for (const Value* argument : entriesOf(*command, "arguments")) {
        const auto required = argument->FindMember("required");
        const bool needed = required != argument->MemberEnd() && required->value.IsTrue();
        printEntry(*argument, "  ", textOf(*argument, "type") + (needed ? "" : ", optional"));
      }
    }
    for (const Value* topic : entriesOf(whole_, "topics")) {
      printEntry(*topic, "", "topic");
    }
  }

  void printEntry(const Value& entry, const std::string& indent, const std::string& note = {}) {
    const std::string description = textOf(entry, "description");
    output_.line("  " + indent + painted(textOf(entry, "name"), "1", output_.colour()) +
                 (note.empty() ? "" : " (" + note + ")") +
                 (description.empty() ? "" : ": " + description));
  }

  Output output_;
  Run run_{Ending::kIsFailure};
  Deadline deadline_;
  Tovik::Message whole_{rapidjson::kObjectType};
};

}  // namespace

void addDescribe(Program& program) {
  const auto run = [](const std::string& name, const Common& common) {
    Describe(name, common).run();
  };
  auto [verb, server] = program.verb<std::string>(
      "describe", "prints what a service says about itself",
      "Asks with {\"command\":\"describe\"}, and prints the commands with their arguments, and the "
      "topics. The time-out is 5 seconds.",
      run);
  verb.argument(kName, Needed::kYes, name(server));
}

}  // namespace tool
