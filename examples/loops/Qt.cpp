// A server in a Qt application, whose own timer makes the news. The message {"stop":true} ends it.

#include <Api/Json/Server.h>
#include <Kelvo/Adapters/QtCore.h>
#include <unistd.h>

#include <QTimer>
#include <csignal>
#include <iostream>

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  QCoreApplication host(argc, argv);
  Tovik::Server server(
      argc > 1 ? argv[1] : "loops",
      [](Tovik::Connection& client, const Tovik::Message& msg) {
        client.acknowledge(0);
        if (msg.HasMember("stop")) {
          QCoreApplication::quit();
        }
      },
      [](int, unsigned uid, unsigned) { return uid == geteuid(); });
  QTimer timer;
  QObject::connect(&timer, &QTimer::timeout, [&] {
    Tovik::Message news;
    news.Parse(R"({"tick":true})");
    server.notifyClients(news);
  });
  timer.start(50);

  std::cout << "ready" << std::endl;
  const int status = Kelvo::Adapters::QtCore().run();
  std::cout << "done" << std::endl;
  return status;
}
