// A server in a GLib main loop, whose own timer makes the news. The message {"stop":true} ends it.

#include <Api/Json/Server.h>
#include <Kelvo/Adapters/GLib.h>
#include <unistd.h>

#include <csignal>
#include <iostream>

static gboolean tick(gpointer server) {
  Tovik::Message news;
  news.Parse(R"({"tick":true})");
  static_cast<Tovik::Server*>(server)->notifyClients(news);
  return G_SOURCE_CONTINUE;
}

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  GMainLoop* host = g_main_loop_new(nullptr, FALSE);
  Tovik::Server server(
      argc > 1 ? argv[1] : "loops",
      [&](Tovik::Connection& client, const Tovik::Message& msg) {
        client.acknowledge(0);
        if (msg.HasMember("stop")) {
          g_main_loop_quit(host);
        }
      },
      [](int, unsigned uid, unsigned) { return uid == geteuid(); });
  g_timeout_add(50, &tick, &server);

  std::cout << "ready" << std::endl;
  Kelvo::Adapters::GLib(host).run();
  g_main_loop_unref(host);
  std::cout << "done" << std::endl;
}
