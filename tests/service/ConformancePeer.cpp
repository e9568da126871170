// What the conformance suite is run with, from C++: the service that conformance.json describes, or
// a caller that reads a JSON object a line from standard input and prints what comes of it.
//
//     conformance_peer serve|proxy|call|client NAME

#include <unistd.h>

#include <csignal>
#include <iostream>
#include <stdexcept>

#include "Api/Json/Client.h"
#include "Api/Service/Proxy.h"
#include "Api/Service/Service.h"
#include "Kelvo/Platform/EventLoop.h"
#include "Kelvo/Platform/FdEventHandler.h"

namespace {

using Kelvo::Platform::EventLoop;
using Tovik::get;
using Tovik::Message;
using Tovik::object;
using Tovik::Request;
using Tovik::required;

// --- the service ---

void addCommands(Tovik::Service& service) {
  service.command(
      "add", "Adds two numbers.",
      {required<std::int64_t>("a", "One."),
       Tovik::optional<std::int64_t>("b", "The other; 1 unless given.")},
      [](Request request) {
        request.reply(request.get<std::int64_t>("a") + request.get<std::int64_t>("b", 1));
      });
  service.command("babble", "Fails with 1002 and a text that no record holds.", {},
                  [](Request request) { request.fail(1002, std::string(5000, '\x01')); });
  service.command("count", "Gives 1, 2 and 3, in parts.", {}, [](Request request) {
    request.more(1);
    request.more(2);
    request.reply(3);
  });
  service.command("drop", "Gives no answer.", {}, [](const Request&) {});
  service.command("echo", "Gives back a value.", {required<Message>("value", "Anything.")},
                  [](Request request) { request.reply(request.get<Message>("value")); });
  service.command("long", "Gives a text that no record holds.", {},
                  [](Request request) { request.reply(std::string(5000, 'x')); });
  service.command("refuse", "Fails with 13 and a text.", {},
                  [](const Request&) { throw Tovik::Refusal(13, "not you"); });
  service.command("switch", "Does nothing.", {required<bool>("on", "On or off.")},
                  [](Request request) { request.reply(); });
}

void addHeld(Tovik::Service& service, std::vector<Request>& held) {
  service.command("hold", "Is answered by 'release'.", {},
                  [&held](const Request& request) { held.push_back(request); });
  service.command("release", "Gives those held 1, 2, ..., the last one first.", {},
                  [&held](Request request) {
                    request.reply();
                    for (int result = 1; !held.empty(); ++result) {
                      held.back().reply(result);
                      held.pop_back();
                    }
                  });
}

void addTopics(Tovik::Service& service) {
  service.topic("plain", {"Keeps nothing."});
  service.topic("state", {"Keeps its last event.", Tovik::Topic::kKeepLast});
  service.command(
      "publish", "Publishes, then answers.",
      {required<std::string>("topic", "Where."), required<int>("value", "What.")},
      [&service](Request request) {
        const auto event = object("value", request.get<int>("value"));
        if (const int status = service.publish(request.get<std::string>("topic"), event)) {
          throw Tovik::Refusal(static_cast<unsigned>(status), "not published");
        }
        request.reply();
      });
}

void serve(const std::string& name) {
  Tovik::Service service(name, [](int, unsigned, unsigned) { return true; }, {"For conformance."});
  std::vector<Request> held;
  addCommands(service);
  addHeld(service, held);
  addTopics(service);
  EventLoop::current().run();
}

// --- callers ---

void print(const Message& line) {
  std::cout << Message::toStr(line, false).data() << std::endl;
}

void printOutcome(const std::string& as, const Tovik::Outcome& outcome) {
  constexpr const char* kEnds[] = {"reply", "timed out", "lost", "refused", "too long"};
  std::vector<Message> parts;
  for (const auto& part : outcome.earlier) {
    parts.push_back(get<Message>(part, "result").value());
  }
  const bool failed = !outcome.error.empty();
  print(object("as", as, "end", kEnds[outcome.end], "status", outcome.status,  //
               "result", outcome.get<Message>(),                               //
               "error", failed ? std::optional(outcome.error) : std::nullopt,  //
               "parts", parts.empty() ? std::nullopt : std::optional(std::move(parts))));
}

/// A line of the input.
struct Step {
  explicit Step(const std::string& line) { message.Parse(line.c_str()); }

  Message call() const { return get<Message>(message, "call").value(); }
  std::string as() const { return get<std::string>(message, "as").value_or(""); }
  Tovik::Proxy::Seconds limit() const {
    return Tovik::Proxy::Seconds(get<double>(message, "limit").value_or(10));
  }

  Message message;
};

class ProxyCaller final : public Kelvo::Platform::FdEventHandler {
 public:
  explicit ProxyCaller(const std::string& name) : proxy_(name, quick()) {
    control_->attach(STDIN_FILENO);
  }

  void readFdEvent(int fd) override {
    char buffer[4096];
    const auto size = ::read(fd, buffer, sizeof buffer);
    if (size <= 0) {
      return EventLoop::current().stop();
    }
    input_.append(buffer, static_cast<std::size_t>(size));
    for (auto end = input_.find('\n'); end != std::string::npos; end = input_.find('\n')) {
      take(Step(input_.substr(0, end)));
      input_.erase(0, end + 1);
    }
  }

 private:
  static Tovik::ProxyOptions quick() {
    Tovik::ProxyOptions options;
    options.reconnectInterval = 0.01;
    return options;
  }

  void take(const Step& step) {
    if (const auto topic = get<std::string>(step.message, "subscribe")) {
      return proxy_.subscribe(*topic, [](const Message& event) { print(object("event", event)); });
    }
    proxy_.call(step.call(), step.limit(),
                Tovik::collecting([as = step.as()](const Tovik::Outcome& outcome) {
                  printOutcome(as, outcome);
                }));
  }

  std::string input_;
  Tovik::Proxy proxy_;
  const Kelvo::Ptr<Kelvo::Platform::FdControl> control_ = Kelvo::Platform::getFdControl(this);
};

void callBlocking(const std::string& name, const Step& step) {
  printOutcome(step.as(), Tovik::call(name, step.call(), step.limit()));
}

void callPlainly(const std::string& name, const Step& step) {
  print(object("as", step.as(), "end", "reply",  //
               "status", Tovik::Client(name).sendMsg(step.call(), true)));
}

void forEachLine(const std::string& name, void (*call)(const std::string&, const Step&)) {
  for (std::string line; std::getline(std::cin, line);) {
    call(name, Step(line));
  }
}

void run(const std::string& role, const std::string& name) {
  if (role == "serve") {
    serve(name);
  } else if (role == "proxy") {
    const ProxyCaller caller(name);
    EventLoop::current().run();
  } else if (role == "call") {
    forEachLine(name, callBlocking);
  } else if (role == "client") {
    forEachLine(name, callPlainly);
  } else {
    throw std::invalid_argument("no role " + role);
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  if (argc != 3) {
    std::cerr << "usage: conformance_peer serve|proxy|call|client NAME" << std::endl;
    return 2;
  }
  run(argv[1], argv[2]);
}
