// The tool's judgement of a text, which is to be right about what the text would do at either end.
// Before that, the two ways in which the JSON library parses: what they take and make is the same.

#include "Api/Json/Types.h"
#include "fuzz/Reader.h"
#include "fuzz/Support.h"
#include "tool/Json.h"

using namespace fuzz;

namespace {

/// Iterative parsing is for long texts, which must not be as deep on the stack as they are long.
void parseBothWays(const std::string& text) {
  Tovik::Message recursive, iterative;
  recursive.Parse(text.c_str());
  iterative.Parse<rapidjson::kParseIterativeFlag>(text.c_str());
  require(recursive.HasParseError() == iterative.HasParseError(), "whether it parses");
  requireEqual(Tovik::Message::toStr(iterative, false).data(),
               Tovik::Message::toStr(recursive, false).data(), "the document");
}

void judge(std::string_view text) {
  parseBothWays(std::string(text));
  const tool::Lint lint = tool::lint(text);
  const Text seen = read(text);
  if (seen.huge) {
    return;
  }
  const bool json = seen.root != Text::Root::kNotJson && text.find('\0') == std::string_view::npos;
  require(lint.notJson.empty() == json, "whether it is JSON: " + lint.notJson);
  if (!json) {
    return;
  }
  require(lint.isObject() == (seen.root == Text::Root::kObject), "the root");
  require(lint.endsServer.empty() == (atServer(seen) != AtServer::kStops), "what ends a server");
  for (const auto& [outcome, meaning] :
       {std::pair(AtServer::kSwitchOn, tool::Switch::kOn),
        std::pair(AtServer::kSwitchOff, tool::Switch::kOff),
        std::pair(AtServer::kSwallowed, tool::Switch::kSwallowed)}) {
    require((atServer(seen) == outcome) == (lint.notification == meaning), "the switch");
  }
  const AtClient outcome = atClient(seen);
  require(lint.endsClient.empty() == (outcome != AtClient::kStops), "what ends a client");
  require(lint.replyStatus.has_value() == (outcome == AtClient::kStatus), "a valid reply");
  require(!lint.replyStatus || *lint.replyStatus == seen.status.number, "the status");
  require(lint.noReply.empty() == (outcome == AtClient::kStatus || outcome == AtClient::kStops),
          "why it is no reply");

  Tovik::Message message;
  message.Parse(std::string(text).c_str());
  requireEqual(lint.compact, Tovik::Message::toStr(message, false).data(), "the compact text");
  require(read(lint.compact) == seen, "the compact text means something else");
  require(tool::whyNotSendable(lint).empty() ==
              (lint.isObject() && lint.endsServer.empty() && lint.compact.size() <= 4094),
          "whether it may be sent");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  judge({reinterpret_cast<const char*>(data), size});
  return 0;
}
