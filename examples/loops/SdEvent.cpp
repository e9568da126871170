// A server in an sd-event loop, whose own timer makes the news. The message {"stop":true} ends it.

#include <Api/Json/Server.h>
#include <Kelvo/Adapters/SdEvent.h>
#include <unistd.h>

#include <csignal>
#include <iostream>

static int tick(sd_event_source* source, std::uint64_t /*due*/, void* server) {
  Tovik::Message news;
  news.Parse(R"({"tick":true})");
  static_cast<Tovik::Server*>(server)->notifyClients(news);
  sd_event_source_set_time_relative(source, 50000);
  return sd_event_source_set_enabled(source, SD_EVENT_ONESHOT);
}

int main(int argc, char** argv) try {
  std::signal(SIGPIPE, SIG_IGN);
  sd_event* host = nullptr;
  sd_event_default(&host);
  Tovik::Server server(
      argc > 1 ? argv[1] : "loops",
      [&](Tovik::Connection& client, const Tovik::Message& msg) {
        client.acknowledge(0);
        if (msg.HasMember("stop")) {
          sd_event_exit(host, 0);
        }
      },
      [](int, unsigned uid, unsigned) { return uid == geteuid(); });
  sd_event_add_time_relative(host, nullptr, CLOCK_MONOTONIC, 50000, 0, &tick, &server);
  std::cout << "ready" << std::endl;
  Kelvo::Adapters::SdEvent(host).run();
  sd_event_unref(host);
  std::cout << "done" << std::endl;
} catch (const std::exception& failure) {  // also what a callback has thrown
  std::cerr << failure.what() << std::endl;
  return 1;
}
