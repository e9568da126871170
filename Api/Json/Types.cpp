#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cstring>
#include <string>

#include "Api/Json/Types.h"
#include "Api/Json/detail/Deep.h"

namespace Tovik {

namespace {

using rapidjson::SizeType;
using rapidjson::StringBuffer;

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

template <class Writer>
Kelvo::String write(const Message& msg, bool pretty) {
  StringBuffer buffer;
  BoundedWriter<Writer> writer(buffer);
  msg.Accept(writer);
  return writer.tooDeep() ? writeDeep(msg, pretty)
                          : Kelvo::String(std::string(buffer.GetString(), buffer.GetSize()));
}

}  // namespace

template <>
void LibraryBuiltAlike::theseSizes() {}

Kelvo::String Message::toStr(const Message& msg, bool pretty) {
  return pretty ? write<rapidjson::PrettyWriter<StringBuffer>>(msg, pretty)
                : write<rapidjson::Writer<StringBuffer>>(msg, pretty);
}

SocketException::SocketException(int errnum) : Kelvo::Exception(std::strerror(errnum), true) {}

SocketException::~SocketException() = default;

const char* SocketException::name() const noexcept {
  return "Tovik::SocketException";
}

}  // namespace Tovik
