// An application that takes the library through all that it does, on one thread, between two marks
// that a tracer of system calls sees. It checks by itself that the library has started no thread
// and left no descriptor open but sockets and the event loop's own.

#include <Api/Json/Client.h>
#include <Api/Json/Server.h>
#include <Kelvo/Platform/Debug.h>
#include <Kelvo/Platform/EventLoop.h>
#include <dirent.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <map>
#include <string>

namespace {

using Kelvo::Platform::EventLoop;

std::map<std::string, std::string> entriesOf(const std::string& path) {
  std::map<std::string, std::string> found;
  DIR* directory = opendir(path.c_str());
  while (const dirent* entry = readdir(directory)) {
    const std::string name = entry->d_name;
    if (name[0] != '.' && name != std::to_string(dirfd(directory))) {
      char target[256] = "";
      static_cast<void>(!readlink((path + "/" + name).c_str(), target, sizeof target - 1));
      found[name] = target;
    }
  }
  closedir(directory);
  return found;
}

void turn() {
  while (EventLoop::current().dispatch()) {
  }
}

Tovik::Message parsed(const char* text) {
  Tovik::Message msg;
  msg.Parse(text);
  return msg;
}

/// Everything that the library does: connects of both kinds, a command, a reply, a subscription, a
/// notification, bad text, a refusal, failures, all of it logged to standard error.
bool converse(const std::string& name) {
  int messages = 0;
  bool admits = true;
  Tovik::Server server(
      name, [](Tovik::Connection& connection, const Tovik::Message&) { connection.acknowledge(3); },
      [&](int, unsigned, unsigned) { return admits; });
  Tovik::AsyncClient subscriber(
      name, [&](Tovik::AsyncClient&, const Tovik::Message&) { ++messages; },
      [](Tovik::AsyncClient& client) {
        client.asyncSendMsg(parsed(R"({"command":"set","notification":true})"));
      },
      1);
  Tovik::Client client(name);
  client.sendMsg(parsed("{}"), false);
  turn();
  const bool answered = client.waitAck() == 3;
  server.notifyClients(parsed(R"({"n":1})"));
  turn();
  admits = false;
  const Tovik::Client refused(name);
  turn();
  try {
    const Tovik::Client lost(name + "-nobody");
  } catch (const Tovik::SocketException& exception) {
    Tovik::Message::toStr(parsed("[1]"), true);
  }
  return answered && messages == 2;
}

}  // namespace

int main() {
  std::signal(SIGPIPE, SIG_IGN);
  alarm(20);
  const std::string name = "tovik-quiet-" + std::to_string(getpid());
  const auto before = entriesOf("/proc/self/fd");

  access("/tovik-begin", F_OK);
  Kelvo::Platform::setDebugLevels("Tovik", 0xF);
  const bool conversed = converse(name);
  access("/tovik-end", F_OK);

  if (!conversed) {
    std::puts("the conversation failed");
    return 1;
  }
  if (entriesOf("/proc/self/task").size() != 1) {
    std::puts("there is another thread");
    return 1;
  }
  for (const auto& [fd, target] : entriesOf("/proc/self/fd")) {
    if (before.count(fd) == 0 && target.rfind("anon_inode:", 0) != 0) {
      std::printf("descriptor %s is open: %s\n", fd.c_str(), target.c_str());
      return 1;
    }
  }
  return 0;
}
