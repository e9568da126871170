// A server in an application that calls poll itself: here, for standard input too. What is read
// there is broadcast to the subscribers; at its end the program ends.

#include <Api/Json/Server.h>
#include <Kelvo/Adapters/Poll.h>
#include <unistd.h>

#include <csignal>
#include <iostream>

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  Tovik::Server server(
      argc > 1 ? argv[1] : "loops", [](auto& client, const auto&) { client.acknowledge(0); },
      [](int, unsigned uid, unsigned) { return uid == geteuid(); });

  Kelvo::Adapters::Poll adapter;
  pollfd watched[] = {adapter.entry(), {STDIN_FILENO, POLLIN, 0}};
  std::cout << "ready" << std::endl;
  for (char text[512]; poll(watched, 2, -1) > 0;) {
    adapter.dispatch(watched[0]);
    if (watched[1].revents != 0) {
      const auto length = read(STDIN_FILENO, text, sizeof text);
      if (length <= 0) {
        break;
      }
      Tovik::Message news;
      news.SetObject();
      rapidjson::Value typed(text, static_cast<unsigned>(length), news.GetAllocator());
      news.AddMember("typed", typed, news.GetAllocator());
      server.notifyClients(news);
    }
  }
  std::cout << "done" << std::endl;
}
