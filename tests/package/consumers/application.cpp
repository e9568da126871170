// A server with a rule of admission, in an application's own poll loop, and its client.

#include <Api/Admission.h>
#include <Api/Json/Client.h>
#include <Api/Json/Server.h>
#include <Kelvo/Adapters/Poll.h>
#include <poll.h>
#include <unistd.h>

#include <csignal>
#include <string>

namespace {

Tovik::Message parsed(const char* text) {
  Tovik::Message msg;
  msg.Parse(text);
  return msg;
}

}  // namespace

int main() {
  std::signal(SIGPIPE, SIG_IGN);
  alarm(20);
  const std::string name = "tovik-consumer-" + std::to_string(getpid());
  const Tovik::Server server(
      name,
      [](Tovik::Connection& connection, const Tovik::Message& msg) {
        connection.acknowledge(msg["add"].GetUint() + 1);
      },
      Tovik::Admission::users({geteuid()}) && Tovik::Admission::ratePerUser(1, 1));

  const Tovik::Client client(name);
  client.sendMsg(parsed(R"({"add":41})"), false);
  Kelvo::Adapters::Poll loop;
  for (int turns = 0; turns < 2; ++turns) {  // the client is accepted, then its message is read
    pollfd entry = loop.entry();
    poll(&entry, 1, -1);
    loop.dispatch(entry);
  }
  return client.waitAck() == 42 ? 0 : 1;
}
