// The blocking client: one command after the other, each with its answer.

#include <iostream>
#include <string_view>

#include "Api/Json/Client.h"
#include "examples/hostmon/Hostmon.h"

namespace Hostmon {

namespace {

/// "get" is answered with a message of its own, everything else with a status.
bool wantsMessage(const Tovik::Message& msg) {
  const auto command = msg.FindMember("command");
  return command != msg.MemberEnd() && command->value.IsString() &&
         std::string_view(command->value.GetString()) == "get";
}

std::string answerTo(const Tovik::Message& msg, const Tovik::Client& client) {
  if (!wantsMessage(msg)) {
    const int status = client.sendMsg(msg, true);
    return status < 0 ? "no reply" : "reply with status " + std::to_string(status);
  }
  if (client.sendMsg(msg, false) != 0) {
    return "not sent";
  }
  return Tovik::Message::toStr(client.waitForMsg(), false).data();
}

bool call(const Tovik::Client& client, const std::string& text) {
  Tovik::Message msg;
  msg.Parse(text.c_str());
  if (msg.HasParseError() || !msg.IsObject()) {
    std::cerr << "not a JSON object, so not sent: " << text << std::endl;
    return false;
  }
  std::cout << text << " -> " << std::flush;
  try {
    std::cout << answerTo(msg, client) << std::endl;
    return true;
  } catch (const Tovik::SocketException& failure) {
    std::cout << "no answer: " << failure.what() << std::endl;
    return false;
  }
}

}  // namespace

int call(const std::string& name, const std::vector<std::string>& commands) {
  const Tovik::Client client(name);
  bool answered = true;
  for (const auto& command : commands) {
    answered = call(client, command) && answered;
  }
  return answered ? 0 : 1;
}

}  // namespace Hostmon
