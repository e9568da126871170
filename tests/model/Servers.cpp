#include "tests/model/Servers.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <thread>
#include <utility>

#include "Kelvo/Platform/EventLoop.h"

using Kelvo::Platform::EventLoop;

namespace model {

// --- in this process ---

LocalServer::LocalServer(const std::string& name, Report* report)
    : AnyServer(report),
      server_(
          name.c_str(),
          [this](auto& connection, const auto& message) { handle(connection, message); },
          [report](int, unsigned, unsigned) {
            ++report->validations;
            return report->admits.load();
          }) {}

void LocalServer::handle(Tovik::Connection& connection, const Tovik::Message& message) {
  const auto from = message["from"].GetUint();
  handled[from].emplace_back(Tovik::Message::toStr(message, false).data());
  ++report_->handled[from];
  if (message.HasMember("echo")) {
    connection.sendMsg(message);
  } else if (message.HasMember("call")) {
    connection.acknowledge(message["call"].GetUint());
  }
}

void LocalServer::notify(unsigned number) {
  server_.notifyClients(parsed(notice(number)));
}

// --- in a child ---

namespace {

/// Takes the parent's commands in the child: a number is to be broadcast.
class Commands final : public Kelvo::Platform::FdEventHandler {
 public:
  Commands(int fd, LocalServer& server)
      : control_(Kelvo::Platform::getFdControl(this)), server_(server) {
    control_->attach(fd);
  }
  void readFdEvent(int fd) override {
    unsigned number = 0;
    if (::recv(fd, &number, sizeof number, 0) != sizeof number) {
      std::_Exit(0);  // the parent has gone
    }
    server_.notify(number);
    ::send(fd, "", 1, 0);
  }

 private:
  Kelvo::Ptr<Kelvo::Platform::FdControl> control_;
  LocalServer& server_;
};

[[noreturn]] void serve(const std::string& name, Report* report, int commandsFd) {
  // Of the parent's descriptors, sockets of clients among them, none is to live on here.
  ::dup2(commandsFd, 3);
  ::close_range(4, ~0U, 0);
  Log log;
  LocalServer server(name, report);
  const Commands commands(3, server);
  ::send(3, "", 1, 0);  // ready
  while (true) {
    EventLoop::current().runOnce(std::chrono::milliseconds(-1));
    report->invalid += std::exchange(log.errors[kInvalid], 0);
    report->readResets += std::exchange(log.errors[kReadReset], 0);
    report->readEvents = log.readEvents;
  }
}

}  // namespace

ChildServer::ChildServer(const std::string& name, Report* report) : AnyServer(report) {
  auto [ours, theirs] = rawPair();
  // From a thread that has no event loop, so that the child can make one of its own.
  std::thread([&, childsEnd = theirs.get()] {
    pid_ = ::fork();
    if (pid_ == 0) {
      serve(name, report, childsEnd);
    }
  }).join();
  theirs.reset();
  commands_ = std::move(ours);
  char ready = 0;
  ::recv(commands_.get(), &ready, 1, 0);
}

ChildServer::~ChildServer() {
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
}

void ChildServer::notify(unsigned number) {
  char done = 0;
  ::send(commands_.get(), &number, sizeof number, MSG_NOSIGNAL);
  ::recv(commands_.get(), &done, 1, 0);
}

// --- the log ---

Log::Log()
    : sink_(0x5, [this](const auto& record) {
        if (record.level == 0 && record.function != "Server") {
          ++errors[record.text];
        }
        readEvents += record.level == 2 && record.function == "readFdEvent" ? 1 : 0;
      }) {}

}  // namespace model
