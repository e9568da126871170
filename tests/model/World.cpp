#include "tests/model/World.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Kelvo/Platform/EventLoop.h"
#include "tests/model/VirtualClock.h"

using Kelvo::Platform::EventLoop;

namespace model {

namespace {

void require(bool condition, const std::string& what) {
  if (!condition) {
    throw Difference{what};
  }
}

void requireEqual(const std::string& actual, const std::string& expected, const std::string& what) {
  require(actual == expected, what + ": expected " + expected + ", got " + actual);
}

/// For records that are small.
std::string receiveRaw(int fd) {
  char buffer[512];
  const auto length = ::recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
  if (length < 0) {
    return errno == EAGAIN ? "<nothing>" : errno == ECONNRESET ? "<reset>" : std::strerror(errno);
  }
  return length == 0 ? "<end>" : std::string(buffer, static_cast<std::size_t>(length));
}

/// The number that the next descriptor to be opened gets.
int nextDescriptor() {
  const int fd = ::dup(STDERR_FILENO);
  ::close(fd);
  return fd;
}

std::string textOf(const std::map<std::string, unsigned>& lines) {
  std::string text;
  for (const auto& [line, count] : lines) {
    text += "\n  " + std::to_string(count) + " times: " + line;
  }
  return text;
}

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

}  // namespace

World::World()
    : name_(uniqueName()),
      sink_(0x5,
            [this](const auto& record) {
              if (record.level == 0 && record.function != "Server") {
                ++errors_[record.text];
              }
              readEvents_ += record.level == 2 && record.function == "readFdEvent" ? 1 : 0;
            }),
      model_(VirtualClock::now()),
      openAtFirst_((EventLoop::current(), openDescriptors().size())) {}

// --- the server ---

void World::startServer() {
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
void World::handle(Tovik::Connection& connection, const Tovik::Message& message) {
  handled_[message["from"].GetUint()].emplace_back(Tovik::Message::toStr(message, false).data());
  if (message.HasMember("echo")) {
    connection.sendMsg(message);
  } else if (message.HasMember("call")) {
    connection.acknowledge(message["call"].GetUint());
  }
}

void World::stopServer() {
  server_.reset();
  model_.stop();
}

void World::notify(unsigned count) {
  for (unsigned i = 0; i < count; ++i) {
    const std::string text = notice(++lastNumber_);
    server_->notifyClients(parsed(text));
    model_.notify(text);
  }
}

void World::admit(bool yes) {
  model_.admits = yes;
}

void World::freeDead() {
  server_->freeDeadConnections();
}

// --- clients ---

void World::connect(unsigned place) {
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
      requireEqual(error.what(), std::strerror(ECONNREFUSED), "a refused connect");
    }
  }
  require(connected == expected, placeText(place) + " connects");
}

void World::send(unsigned place, Kind kind) {
  const std::string text = record(kind, ++lastNumber_, place);
  if (place >= kFirstAsync) {
    model_.asyncSend(place, text);
    if (kind != Kind::kNotJson) {
      async_[place - kFirstAsync].client->asyncSendMsg(parsed(text));
    }
    return;
  }
  const int expected = model_.send(place, text);
  if (place < kRawClients) {
    const auto sent = ::send(descriptors_[place], text.data(), text.size(), MSG_NOSIGNAL);
    require((sent < 0 ? errno : 0) == expected, "what a send meets");
    return;
  }
  const int result = blocking_[place - kRawClients]->sendMsg(parsed(text), false);
  require(result == (expected == 0 ? 0 : -1), "the result of Client::sendMsg");
  const std::string line = "Client::sendMsg(): Failed to write() ";
  require(expected == 0 || errors_.erase(line + std::strerror(expected)) == 1,
          "the log of Client::sendMsg");
}

void World::close(unsigned place) {
  model_.close(place);
  if (place < kRawClients) {
    raw_[place].reset();
  } else {
    blocking_[place - kRawClients].reset();
  }
}

void World::setReading(unsigned place, bool reading) {
  model_.clients[place].reading = reading;
}

void World::create(unsigned place, bool subscribes, unsigned interval) {
  AsyncEnd& end = async_[place - kFirstAsync];
  end.events.clear();
  end.client = std::make_unique<Tovik::AsyncClient>(
      name_.c_str(),
      [&end](auto&, const auto& message) {
        end.events.emplace_back(Tovik::Message::toStr(message, false).data());
      },
      [&end, subscribes](auto& client) {
        end.events.emplace_back("connected");
        if (subscribes) {
          client.asyncSendMsg(parsed(record(Kind::kOn, 0, 0)));
        }
      },
      static_cast<int>(interval));
  model_.create(place, subscribes, std::chrono::seconds(interval));
}

void World::destroy(unsigned place) {
  async_[place - kFirstAsync].client.reset();
  async_[place - kFirstAsync].events.clear();
  model_.destroy(place);
}

void World::drop(unsigned place) {
  async_[place - kFirstAsync].client->terminateConnection();
  model_.drop(place);
}

void World::retry(unsigned place) {
  async_[place - kFirstAsync].client->timeout();
  model_.retry(place);
}

// --- time, and everybody's turn ---

void World::advance(Time by) {
  VirtualClock::advance(by);
  model_.advance(by);
}

void World::settle() {
  model_.settle();
  turnUntilIdle();
  compare();
  for (unsigned place = 0; place < kFirstAsync; ++place) {
    if (model_.clients[place].link && model_.clients[place].reading) {
      drain(place);
    }
  }
}

void World::compare() {
  for (unsigned i = 0; i < kAsyncClients; ++i) {
    Client& client = model_.clients[kFirstAsync + i];
    const std::string who = placeText(kFirstAsync + i);
    const auto& events = async_[i].events;
    for (std::size_t at = 0; at < std::max(events.size(), client.events.size()); ++at) {
      requireEqual(at < events.size() ? events[at] : "nothing",
                   at < client.events.size() ? client.events[at] : "nothing", "event of " + who);
    }
    async_[i].events.clear();
    client.events.clear();
    require(!async_[i].client || async_[i].client->isAttached() == (client.link != nullptr),
            "whether " + who + " is connected");
  }
  compareServer();
  compareLog();
}

void World::compareServer() {
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
    require(readEvents_ == model_.readEvents, "read events of the server's connections: expected " +
                                                  std::to_string(model_.readEvents) + ", got " +
                                                  std::to_string(readEvents_));
    require(validations_ == model_.validations, "clients judged");
  }
}

void World::compareLog() {
  requireEqual(textOf(errors_), textOf(model_.log), "the log of errors");
}

// --- what raw and blocking clients receive ---

void World::drain(unsigned place) {
  Link& link = *model_.clients[place].link;
  while (true) {
    const std::string expected = model_.next(place);
    const std::string actual = receive(place);
    if (actual == "<nothing>" && expected != actual && EventLoop::current().dispatch()) {
      continue;  // what did not fit into the socket at first is on its way
    }
    if (actual == "<end>" && link.mayBeCut && link.readSince >= kSurelyInSocket) {
      link.toClient.clear();
    } else {
      requireEqual(actual, expected, placeText(place) + " receives");
    }
    if (actual == "<nothing>" || actual == "<end>") {
      return;
    }
    model_.take(place);
  }
}

std::string World::receive(unsigned place) {
  pollfd query{descriptors_[place], POLLIN, 0};
  if (::poll(&query, 1, 0) == 0) {
    return "<nothing>";
  }
  return place < kRawClients ? receiveRaw(descriptors_[place])
                             : receiveBlocking(*blocking_[place - kRawClients], model_.next(place));
}

std::string World::receiveBlocking(const Tovik::Client& client, const std::string& expected) {
  try {
    if (expected.rfind(R"({"type":"reply")", 0) == 0) {
      return reply(static_cast<unsigned>(client.waitAck()));
    }
    return Tovik::Message::toStr(client.waitForMsg(), false).data();
  } catch (const Tovik::SocketException& error) {
    const std::string text = error.what();
    return text == std::strerror(ECONNRESET) ? "<reset>"
           : text == std::strerror(EPIPE)    ? "<end>"
                                             : text;
  }
}

void World::finish() {
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

}  // namespace model
