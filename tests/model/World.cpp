// Random conversations between a server and nine clients of all kinds, on the real library and on a
// model of it, step by step. Time is virtual. A run is repeated by giving its seed again.
//
//     model_test [STEPS [SEED]]

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>

#include "Api/Json/Client.h"
#include "Api/Json/Server.h"
#include "tests/model/Model.h"
#include "tests/model/VirtualClock.h"
#include "tests/support/Support.h"

using namespace model;

namespace {

constexpr std::size_t kMostUnread = 60;  // what any socket has room for
constexpr std::size_t kMostWaiting = 2;  // and three asynchronous clients, within the backlog of 5

/// A connection's records are handled in their order. Between two connections of one client there
/// is no order.
bool holdsInOrder(const std::vector<std::string>& all, const std::vector<std::string>& records) {
  auto at = all.begin();
  return std::all_of(records.begin(), records.end(), [&](const std::string& record) {
    at = std::find(at, all.end(), record);
    return at != all.end();
  });
}

std::string placeText(unsigned place) {
  return "client " + std::to_string(place);
}

/// The real server and the real clients beside their model. Every step is taken on both; what can
/// be compared at once is, the rest when all have settled.
class World {
 public:
  World(unsigned long steps, unsigned long seed)
      : steps_(steps),
        seed_(seed),
        random_(seed),
        sink_(0x5,
              [this](const auto& record) {
                if (record.level == 0 && record.function != "Server") {
                  ++errors_[record.text];
                }
                readEvents_ += record.level == 2 && record.function == "readFdEvent" ? 1 : 0;
              }),
        openAtFirst_((Kelvo::Platform::EventLoop::current(), openDescriptors().size())) {}

  void run() {
    startServer();
    for (unsigned long i = 0; i < steps_; ++i) {
      step();
      if (chance(40) || tooMuchUnderWay()) {
        settle();
      }
    }
    finish();
  }

 private:
  struct AsyncEnd {
    std::unique_ptr<Tovik::AsyncClient> client;
    Texts events;
  };

  /// Ends the program where the library and the model do something else.
  void require(bool condition, const std::string& what) const {
    if (condition) {
      return;
    }
    for (const std::string& step : recent_) {
      std::printf("  %s\n", step.c_str());
    }
    std::printf("DIFFERENCE: %s\nRepeat with: model_test %lu %lu\n", what.c_str(), steps_, seed_);
    std::exit(1);
  }

  template <class T>
  void requireEqual(const T& actual, const T& expected, const std::string& what) const {
    require(actual == expected, what + ": expected " + ::testing::PrintToString(expected) +
                                    ", got " + ::testing::PrintToString(actual));
  }

  // --- what happens next ---

  unsigned below(unsigned bound) { return static_cast<unsigned>(random_() % bound); }
  bool chance(unsigned percent) { return below(100) < percent; }

  void note(const std::string& step) {
    recent_.push_back(step);
    if (recent_.size() > 60) {
      recent_.pop_front();
    }
  }

  bool tooMuchUnderWay() const {
    return model_.waiting() > kMostWaiting ||
           std::any_of(model_.clients.begin(), model_.clients.end(), [](const Client& client) {
             return client.link &&
                    client.link->server.unread.size() + client.queue.size() > kMostUnread;
           });
  }

  void step() {
    const unsigned place = below(kClients);
    const unsigned what = below(100);
    Client& client = model_.clients[place];
    if (what < 4) {
      serverStep();
    } else if (what < 12) {
      notify();
    } else if (what < 16) {
      const std::chrono::milliseconds by(below(3000));
      note("advance " + std::to_string(by.count()) + " ms");
      VirtualClock::advance(by);
    } else if (place >= kFirstAsync && !client.exists) {
      create(place);
    } else if (place >= kFirstAsync) {
      asyncStep(place, what);
    } else if (!client.link) {
      connect(place);
    } else if (what < 20) {
      close(place);
    } else if (what < 28) {
      note((client.reading ? "stop reading, " : "read again, ") + placeText(place));
      client.reading = !client.reading;
    } else {
      send(place);
    }
  }

  void serverStep() {
    if (!model_.up) {
      startServer();
    } else if (chance(50)) {
      stopServer();
    } else if (chance(50)) {
      model_.admits = !model_.admits;
      note(model_.admits ? "admit" : "refuse");
    } else {
      note("free the dead");
      server_->freeDeadConnections();
    }
  }

  void asyncStep(unsigned place, unsigned what) {
    Tovik::AsyncClient& client = *async_[place - kFirstAsync].client;
    if (what < 18) {
      destroy(place);
    } else if (what < 22) {
      note("drop " + placeText(place));
      client.terminateConnection();
      model_.lose(place);
    } else if (what < 26 && model_.waiting() < kMostWaiting) {
      note("retry " + placeText(place));
      client.timeout();
      model_.retry(place);
    } else {
      send(place);
    }
  }

  // --- the server ---

  void startServer() {
    note("start");
    validations_ = readEvents_ = 0;
    server_ = std::make_unique<Tovik::Server>(
        name_, [this](auto& connection, const auto& message) { handle(connection, message); },
        [this](int, unsigned, unsigned) {
          ++validations_;
          return model_.admits;
        });
    model_.start();
  }

  /// An application of the library: answers calls and echoes, and takes notes.
  void handle(Tovik::Connection& connection, const Tovik::Message& message) {
    handled_[message["from"].GetUint()].emplace_back(Tovik::Message::toStr(message, false).data());
    if (message.HasMember("echo")) {
      connection.sendMsg(message);
    } else if (message.HasMember("call")) {
      connection.acknowledge(message["call"].GetUint());
    }
  }

  void stopServer() {
    note("stop");
    server_.reset();
    model_.stop();
  }

  void notify() {
    const unsigned count = chance(3) ? 100 + below(400) : 1 + below(3);
    note("notify " + std::to_string(count));
    for (unsigned i = 0; i < count && model_.up; ++i) {
      const std::string text = "{\"notice\":" + std::to_string(++lastNumber_) + "}";
      server_->notifyClients(parsed(text));
      model_.notify(text);
    }
    if (count > kMostUnread) {
      settle();  // how much of it a server that stops now would lose is the kernel's affair
    }
  }

  // --- clients ---

  void connect(unsigned place) {
    note("connect " + placeText(place));
    const bool expected = model_.connect(place);
    bool connected = false;
    if (place < kRawClients) {
      raw_[place] = rawConnect(name_);
      descriptors_[place] = raw_[place].get();
      connected = raw_[place].get() >= 0;
    } else {
      descriptors_[place] = nextDescriptor();
      try {
        blocking_[place - kRawClients] = std::make_unique<Tovik::Client>(name_.c_str());
        connected = true;
      } catch (const Tovik::SocketException& error) {
        require(error.what() == std::string(std::strerror(ECONNREFUSED)), "a refused connect");
      }
    }
    require(connected == expected, placeText(place) + " connects");
  }

  void send(unsigned place) {
    const unsigned kinds = place < kRawClients ? 8 : 7;  // the library sends JSON only
    const std::string tail =
        std::to_string(++lastNumber_) + ",\"from\":" + std::to_string(place) + "}";
    const std::string texts[] = {"{\"call\":" + tail,
                                 "{\"call\":" + tail,
                                 "{\"echo\":" + tail,
                                 "{\"note\":" + tail,
                                 kOn,
                                 kOff,
                                 kSwallowed,
                                 kNotJson};
    const std::string& text = texts[below(kinds)];
    note("send " + text + ", " + placeText(place));
    if (place >= kFirstAsync) {
      model_.asyncSend(place, text);
      return async_[place - kFirstAsync].client->asyncSendMsg(parsed(text));
    }
    const int expected = model_.send(place, text);
    if (place < kRawClients) {
      const auto sent = ::send(descriptors_[place], text.data(), text.size(), MSG_NOSIGNAL);
      return require((sent < 0 ? errno : 0) == expected, "what a send meets");
    }
    const int result = blocking_[place - kRawClients]->sendMsg(parsed(text), false);
    require(result == (expected == 0 ? 0 : -1), "the result of Client::sendMsg");
    const std::string line = "Client::sendMsg(): Failed to write() ";
    require(expected == 0 || errors_.erase(line + std::strerror(expected)) == 1,
            "the log of Client::sendMsg");
  }

  void close(unsigned place) {
    note("close " + placeText(place));
    model_.close(place);
    if (place < kRawClients) {
      raw_[place].reset();
    } else {
      blocking_[place - kRawClients].reset();
    }
  }

  void create(unsigned place) {
    note("create " + placeText(place));
    const unsigned interval = 1 + below(3);
    const bool subscribes = chance(50);
    AsyncEnd& end = async_[place - kFirstAsync];
    end.client = std::make_unique<Tovik::AsyncClient>(
        name_.c_str(),
        [&end](auto&, const auto& message) {
          end.events.emplace_back(Tovik::Message::toStr(message, false).data());
        },
        [&end, subscribes](auto& client) {
          end.events.emplace_back("connected");
          if (subscribes) {
            client.asyncSendMsg(parsed(kOn));
          }
        },
        static_cast<int>(interval));
    model_.create(place, subscribes, std::chrono::seconds(interval));
  }

  void destroy(unsigned place) {
    note("destroy " + placeText(place));
    async_[place - kFirstAsync] = {};
    model_.destroy(place);
  }

  // --- everybody's turn ---

  void settle() {
    note("settle");
    model_.settle();
    turnUntilIdle();
    compareAsyncClients();
    compareServer();
    requireEqual(errors_, model_.log, "the log of errors");
    for (unsigned place = 0; place < kFirstAsync; ++place) {
      if (model_.clients[place].link && model_.clients[place].reading) {
        drain(place);
      }
    }
  }

  void compareAsyncClients() {
    for (unsigned i = 0; i < kAsyncClients; ++i) {
      Client& client = model_.clients[kFirstAsync + i];
      const std::string who = placeText(kFirstAsync + i);
      requireEqual(async_[i].events, client.events, "the events of " + who);
      async_[i].events.clear();
      client.events.clear();
      require(!async_[i].client || async_[i].client->isAttached() == (client.link != nullptr),
              "whether " + who + " is connected");
    }
  }

  void compareServer() {
    for (unsigned place = 0; place < kClients; ++place) {
      std::size_t expected = 0;
      for (const auto& [connection, records] : model_.handled[place]) {
        expected += records.size();
        require(
            holdsInOrder(handled_[place], records),
            "the messages of connection " + std::to_string(connection) + " of " + placeText(place));
      }
      require(handled_[place].size() == expected, "messages of " + placeText(place) + " handled");
      handled_[place].clear();
      model_.handled[place].clear();
    }
    if (model_.up) {
      requireEqual(readEvents_, model_.readEvents, "read events of the server's connections");
      require(validations_ == model_.validations, "clients judged");
    }
  }

  // --- what raw and blocking clients receive ---

  void drain(unsigned place) {
    Link& link = *model_.clients[place].link;
    while (true) {
      const std::string expected = model_.next(place);
      const std::string actual = receive(place, expected);
      if (actual == "<nothing>" && expected != actual &&
          Kelvo::Platform::EventLoop::current().dispatch()) {
        continue;  // what did not fit into the socket at first is on its way
      }
      if (actual == "<end>" && link.mayBeCut && link.readSince >= kSurelyInSocket) {
        link.client.unread.clear();
      } else {
        requireEqual(actual, expected, placeText(place) + " receives");
      }
      if (actual == "<nothing>" || actual == "<end>") {
        return;
      }
      model_.take(place);
    }
  }

  std::string receive(unsigned place, const std::string& expected) {
    if (place < kRawClients) {
      return rawReceiveNow(descriptors_[place]);
    }
    pollfd query{descriptors_[place], POLLIN, 0};
    return ::poll(&query, 1, 0) == 0 ? "<nothing>"
                                     : receive(*blocking_[place - kRawClients], expected);
  }

  static std::string receive(const Tovik::Client& client, const std::string& expected) {
    try {
      if (expected.rfind(R"({"type":"reply")", 0) == 0) {
        return reply(static_cast<unsigned>(client.waitAck()));
      }
      return Tovik::Message::toStr(client.waitForMsg(), false).data();
    } catch (const Tovik::SocketException& error) {
      const std::string text = error.what();
      return text == std::strerror(ECONNRESET) ? "<error>"
             : text == std::strerror(EPIPE)    ? "<end>"
                                               : text;
    }
  }

  /// Everything ends; nothing may be left.
  void finish() {
    for (unsigned place = 0; place < kFirstAsync; ++place) {
      if (model_.clients[place].link) {
        close(place);
      }
    }
    for (unsigned place = kFirstAsync; place < kClients; ++place) {
      destroy(place);
    }
    settle();
    if (model_.up) {
      stopServer();
    }
    require(openDescriptors().size() == openAtFirst_, "descriptors are left open");
  }

  const unsigned long steps_, seed_;
  std::mt19937_64 random_;
  Texts recent_;
  const std::string name_ = uniqueName();
  // What the library logs: the lines of level 0, and how many tell of a read event.
  std::map<std::string, unsigned> errors_;
  unsigned readEvents_ = 0;
  const LogSink sink_;
  Model model_;
  std::array<std::vector<std::string>, kClients> handled_;  // messages, by sender
  unsigned validations_ = 0;
  std::unique_ptr<Tovik::Server> server_;
  std::array<Fd, kRawClients> raw_;
  std::array<std::unique_ptr<Tovik::Client>, kBlockingClients> blocking_;
  std::array<AsyncEnd, kAsyncClients> async_;
  unsigned lastNumber_ = 0;
  std::array<int, kFirstAsync> descriptors_{};
  const std::size_t openAtFirst_;
};

}  // namespace

int main(int argc, char** argv) {
  constexpr unsigned long kStepsPerWorld = 2000;
  std::signal(SIGPIPE, SIG_IGN);
  const unsigned long steps = argc > 1 ? std::stoul(argv[1]) : 10000;
  const unsigned long seed = argc > 2 ? std::stoul(argv[2]) : std::random_device()();
  std::printf("model_test %lu %lu\n", steps, seed);
  std::fflush(stdout);
  // Each world has a seed of its own that follows from its place, so that it can be run alone.
  for (unsigned long done = 0; done < steps; done += kStepsPerWorld) {
    World(std::min(kStepsPerWorld, steps - done), seed + done).run();
  }
  std::puts("no difference");
  return 0;
}
