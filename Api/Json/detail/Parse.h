#pragma once

// Private. How the event-driven readers parse what they have read.

#include "Api/Json/Types.h"
#include "Api/Json/detail/Socket.h"
#include "Kelvo/String.h"

namespace Tovik {

/// Makes `msg` the message that `text` stands for. A peer decides how deep a text nests. The
/// parser's recursion is the quickest way, and bounded for the text of one record; a text joined
/// from several records is parsed without recursion, which accepts the same texts and makes the
/// same document.
inline void parse(const Kelvo::String& text, Message& msg) {
  if (text.size() < kReadBufferSize) {
    msg.Parse(text.data());
  } else {
    msg.Parse<rapidjson::kParseIterativeFlag>(text.data());
  }
}

}  // namespace Tovik
