// A small application, as a user would write it: a server on its loop, and a client in a process of
// its own that sends one command and waits for the answer.

#include <Api/Json/Client.h>
#include <Api/Json/Server.h>
#include <Kelvo/Platform/EventLoop.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <string>

namespace {

int runClient(const Kelvo::String& name) {
  const Tovik::Client client(name);
  Tovik::Message command;
  command.SetObject();
  command.AddMember("command", "add", command.GetAllocator());
  command.AddMember("to", 41, command.GetAllocator());
  return client.sendMsg(command, true);
}

}  // namespace

int main() {
  std::signal(SIGPIPE, SIG_IGN);
  alarm(20);
  const std::string name = "tovik-package-" + std::to_string(getpid());
  auto& loop = Kelvo::Platform::EventLoop::current();
  const Tovik::Server server(
      name,
      [&loop](Tovik::Connection& connection, const Tovik::Message& msg) {
        connection.acknowledge(msg["to"].GetUint() + 1);
        loop.stop();
      },
      [](int, unsigned uid, unsigned) { return uid == getuid(); });
  const pid_t child = fork();
  if (child == 0) {
    alarm(20);
    _exit(runClient(name) == 42 ? 0 : 1);
  }
  loop.run();
  int status = -1;
  waitpid(child, &status, 0);
  return status == 0 ? 0 : 1;
}
