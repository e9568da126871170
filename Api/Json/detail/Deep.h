#pragma once

// Private. A peer decides how deep a text nests. RapidJSON parses and writes by recursion, which is
// the quickest way; what is too deep for it takes these functions, which need no more stack for it.
// They are compiled apart, since their templates would cost the quick way its inlining.

#include "Api/Json/Types.h"
#include "Api/Json/detail/Socket.h"
#include "Kelvo/String.h"

namespace Tovik {

/// Accepts the same texts as the default parser and makes the same documents.
void parseDeep(const Kelvo::String& text, Message& msg);

/// As `Message::toStr`.
Kelvo::String writeDeep(const Message& msg, bool pretty);

/// Makes `msg` the message that `text` stands for. The text of one record bounds the recursion; one
/// that a reader has joined from several does not.
inline void parse(const Kelvo::String& text, Message& msg) {
  if (text.size() < kReadBufferSize) {
    msg.Parse(text.data());
  } else {
    parseDeep(text, msg);
  }
}

}  // namespace Tovik
