// A server in a Wayland display's loop, whose own timer makes the news. The message {"stop":true}
// ends it.

#include <Api/Json/Server.h>
#include <unistd.h>

#include <csignal>
#include <iostream>

#include "examples/loops/Wayland.h"

struct News {
  Tovik::Server* server;
  wl_event_source* timer;
};

static int tick(void* data) {
  const auto* news = static_cast<News*>(data);
  Tovik::Message message;
  message.Parse(R"({"tick":true})");
  news->server->notifyClients(message);
  return wl_event_source_timer_update(news->timer, 50);
}

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  wl_display* host = wl_display_create();
  Tovik::Server server(
      argc > 1 ? argv[1] : "loops",
      [&](Tovik::Connection& client, const Tovik::Message& msg) {
        client.acknowledge(0);
        if (msg.HasMember("stop")) {
          wl_display_terminate(host);
        }
      },
      [](int, unsigned uid, unsigned) { return uid == geteuid(); });
  News news{&server, nullptr};
  news.timer = wl_event_loop_add_timer(wl_display_get_event_loop(host), &tick, &news);
  wl_event_source_timer_update(news.timer, 50);

  std::cout << "ready" << std::endl;
  Wayland(host).run();
  wl_event_source_remove(news.timer);
  wl_display_destroy(host);
  std::cout << "done" << std::endl;
}
