#include "Api/Json/detail/Deep.h"

#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <string>
#include <vector>

namespace Tovik {

namespace {

using rapidjson::SizeType;
using rapidjson::StringBuffer;
using rapidjson::Value;

/// Writes a document of any depth, without recursion.
template <class Writer>
class Walk {
 public:
  explicit Walk(Writer& writer) : writer_(writer) {}

  void write(const Value& root) {
    bool goesOn = begin(root);
    while (goesOn && !open_.empty()) {
      goesOn = step();
    }
  }

 private:
  struct Level {
    const Value* container;
    SizeType next;  // of its elements or members
  };

  bool begin(const Value& value) {
    if (!value.IsObject() && !value.IsArray()) {
      return value.Accept(writer_);
    }
    open_.push_back({&value, 0});
    return value.IsObject() ? writer_.StartObject() : writer_.StartArray();
  }

  /// One element or member of the innermost container, or that container's end.
  bool step() {
    auto& [container, next] = open_.back();
    const auto index = next++;
    if (container->IsArray() && index < container->Size()) {
      return begin((*container)[index]);
    }
    if (container->IsObject() && index < container->MemberCount()) {
      const auto& member = container->MemberBegin()[index];
      return writer_.Key(member.name.GetString(), member.name.GetStringLength()) &&
             begin(member.value);
    }
    const bool isObject = container->IsObject();
    open_.pop_back();
    return isObject ? writer_.EndObject(index) : writer_.EndArray(index);
  }

  Writer& writer_;
  std::vector<Level> open_;
};

template <class Writer>
Kelvo::String write(const Message& msg) {
  StringBuffer buffer;
  Writer writer(buffer);
  Walk<Writer>(writer).write(msg);
  return std::string(buffer.GetString(), buffer.GetSize());
}

}  // namespace

void parseDeep(const Kelvo::String& text, Message& msg) {
  msg.Parse<rapidjson::kParseIterativeFlag>(text.data());
}

Kelvo::String writeDeep(const Message& msg, bool pretty) {
  return pretty ? write<rapidjson::PrettyWriter<StringBuffer>>(msg)
                : write<rapidjson::Writer<StringBuffer>>(msg);
}

}  // namespace Tovik
