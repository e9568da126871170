// An application that meets messages and names which end the process. It is built with assertions
// off, and exports its own functions of RapidJSON, assertion-free, under the names of the
// library's.
//
//     misuse client TEXT   a blocking client whose server answers TEXT; exits with the status
//     misuse server TEXT   a server that receives TEXT; exits with 0 once it has handled it
//     misuse name KIND     a name of 107 bytes, for a client, a server or an async client

#include <rapidjson/document.h>
// Before anything of the library.
#include <Api/Json/Client.h>
#include <Api/Json/Server.h>
#include <Kelvo/Platform/EventLoop.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <string>

namespace {

sockaddr_un addressOf(const std::string& name) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path + 1, name.data(), name.size());
  return address;
}

/// Runs the other side in a child process, which ends by itself.
template <class OtherSide>
void inChild(OtherSide otherSide) {
  if (fork() == 0) {
    alarm(10);
    otherSide();
    _exit(0);
  }
}

int runClient(const std::string& name, const std::string& answer) {
  const int listening = socket(AF_UNIX, SOCK_SEQPACKET, 0);
  const sockaddr_un address = addressOf(name);
  if (bind(listening, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      listen(listening, 5) != 0) {
    return 100;
  }
  inChild([&] {
    const int peer = accept(listening, nullptr, nullptr);
    char record[4096];
    if (read(peer, record, sizeof record) > 0 && write(peer, answer.data(), answer.size()) > 0) {
      static_cast<void>(!read(peer, record, sizeof record));  // until the client is gone
    }
  });
  const Tovik::Client client(name);
  Tovik::Message command;
  command.SetObject();
  return client.sendMsg(command, true);
}

int runServer(const std::string& name, const std::string& text) {
  bool handled = false;
  Tovik::Server server(
      name, [&](Tovik::Connection&, const Tovik::Message&) { handled = true; },
      [](int, unsigned, unsigned) { return true; });
  inChild([&] {
    const int peer = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    const sockaddr_un address = addressOf(name);
    char record[4096];
    if (connect(peer, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
        write(peer, text.data(), text.size()) > 0) {
      static_cast<void>(!read(peer, record, sizeof record));  // until the server is gone
    }
  });
  while (!handled) {
    Kelvo::Platform::EventLoop::current().runOnce(std::chrono::seconds(1));
  }
  return 0;
}

int useName(const std::string& kind) {
  const std::string name(107, 'n');
  if (kind == "client") {
    const Tovik::Client client(name);
  } else if (kind == "server") {
    const Tovik::Server server(name, nullptr, nullptr);
  } else {
    Tovik::AsyncClient client(name, nullptr, nullptr, 1);
    client.timeout();
  }
  return 100;
}

/// Uses what the library uses, so that the program holds and exports functions of its own for it.
bool usesRapidJsonItself() {
  rapidjson::Document document;
  document.Parse(R"({"type":"reply","status":1,"notification":true})");
  const auto& constant = document;
  const auto type = constant.FindMember("type");
  return type != constant.MemberEnd() && std::strcmp(type->value.GetString(), "reply") == 0 &&
         constant.FindMember("status")->value.GetUint() == 1 &&
         constant.FindMember("notification")->value.GetBool();
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  alarm(20);
  if (argc != 3 || !usesRapidJsonItself()) {
    return 101;
  }
  const std::string mode = argv[1];
  const std::string name = "tovik-misuse-" + std::to_string(getpid());
  if (mode == "name") {
    return useName(argv[2]);
  }
  return mode == "client" ? runClient(name, argv[2]) : runServer(name, argv[2]);
}
