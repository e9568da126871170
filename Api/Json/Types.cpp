#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cstring>
#include <string>
#include <vector>

#include "Api/Json/Types.h"

namespace Tovik {

namespace {

using rapidjson::SizeType;
using rapidjson::StringBuffer;
using rapidjson::Value;

/// RapidJSON writes a document by recursion: the quickest way, but how deep a received document
/// nests was its peer's choice. This writer stops it at a depth that every stack has room for.
template <class Writer>
class BoundedWriter : public Writer {
 public:
  using Writer::Writer;

  // NOLINTBEGIN(readability-identifier-naming): these are RapidJSON's names
  bool StartObject() { return descend() && Writer::StartObject(); }
  bool StartArray() { return descend() && Writer::StartArray(); }
  bool EndObject(SizeType count) {
    --depth_;
    return Writer::EndObject(count);
  }
  bool EndArray(SizeType count) {
    --depth_;
    return Writer::EndArray(count);
  }
  // NOLINTEND(readability-identifier-naming)

  bool tooDeep() const { return depth_ > kDeepest; }

 private:
  static constexpr int kDeepest = 100;

  bool descend() { return ++depth_ <= kDeepest; }

  int depth_ = 0;
};

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
  BoundedWriter<Writer> bounded(buffer);
  msg.Accept(bounded);
  if (bounded.tooDeep()) {
    buffer.Clear();
    Writer writer(buffer);
    Walk<Writer>(writer).write(msg);
  }
  return std::string(buffer.GetString(), buffer.GetSize());
}

}  // namespace

Kelvo::String Message::toStr(const Message& msg, bool pretty) {
  return pretty ? write<rapidjson::PrettyWriter<StringBuffer>>(msg)
                : write<rapidjson::Writer<StringBuffer>>(msg);
}

SocketException::SocketException(int errnum) : Kelvo::Exception(std::strerror(errnum), true) {}

SocketException::~SocketException() = default;

const char* SocketException::name() const noexcept {
  return "Tovik::SocketException";
}

}  // namespace Tovik
