// A server in a libevent loop, whose own timer makes the news. The message {"stop":true} ends it.

#include <Api/Json/Server.h>
#include <unistd.h>

#include <csignal>
#include <iostream>

#include "examples/loops/Libevent.h"

static void tick(evutil_socket_t /*fd*/, short /*what*/, void* server) {
  Tovik::Message news;
  news.Parse(R"({"tick":true})");
  static_cast<Tovik::Server*>(server)->notifyClients(news);
}

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  event_base* host = event_base_new();
  Tovik::Server server(
      argc > 1 ? argv[1] : "loops",
      [&](Tovik::Connection& client, const Tovik::Message& msg) {
        client.acknowledge(0);
        if (msg.HasMember("stop")) {
          event_base_loopbreak(host);
        }
      },
      [](int, unsigned uid, unsigned) { return uid == geteuid(); });
  event* timer = event_new(host, -1, EV_PERSIST, &tick, &server);
  const timeval period{0, 50000};
  event_add(timer, &period);

  std::cout << "ready" << std::endl;
  Libevent(host).run();
  event_free(timer);
  event_base_free(host);
  std::cout << "done" << std::endl;
}
