#include "tests/model/Model.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace model {

const char* const kInvalid = "Connection::readFdEvent(): Invalid JSON message";
const char* const kReadReset = "AsyncSender::asynRead(): read failed -> Connection reset by peer";
const char* const kWriteReset = "AsyncSender::flushQueue(): write error Connection reset by peer";

std::string record(Kind kind, unsigned number, unsigned place) {
  const std::string tail =
      ":" + std::to_string(number) + ",\"from\":" + std::to_string(place) + "}";
  switch (kind) {
    case Kind::kCall:
      return "{\"call\"" + tail;
    case Kind::kEcho:
      return "{\"echo\"" + tail;
    case Kind::kNote:
      return "{\"note\"" + tail;
    case Kind::kOn:
      return R"({"command":"set","notification":true})";
    case Kind::kOff:
      return R"({"command":"set","notification":false})";
    case Kind::kSwallowed:
      return R"({"command":"set","notification":1})";
    case Kind::kNotJson:
      break;
  }
  return "{nonsense";
}

std::string reply(unsigned status) {
  return R"({"type":"reply","status":)" + std::to_string(status) + "}";
}

std::string notice(unsigned number) {
  return "{\"notice\":" + std::to_string(number) + "}";
}

// --- the server ---

void Model::start() {
  up = true;
  validations = readEvents = 0;
}

void Model::stop() {
  up = false;
  for (const auto& link : backlog_) {
    link->serverOpen = false;
    link->resetAtClient = link->clientOpen;
  }
  backlog_.clear();
  for (const auto& link : links_) {
    serverCloses(*link);
  }
  links_.clear();
}

void Model::notify(const std::string& text) {
  for (const auto& link : links_) {
    if (link->subscribed && link->serverOpen) {
      answer(*link, text);
    }
  }
}

/// A write of the server's.
void Model::answer(Link& link, const std::string& text) {
  if (link.clientOpen) {
    link.toClient.push_back(text);
  } else if (std::exchange(link.resetAtServer, false)) {
    link.serverBlocked = true;
    ++log[kWriteReset];
  } else {
    serverCloses(link);
  }
}

void Model::serverCloses(Link& link) {
  link.serverOpen = false;
  link.resetAtClient = link.clientOpen && !link.toServer.empty();
  link.mayBeCut = link.toClient.size() > kSurelyInSocket;
  link.toServer.clear();
}

void Model::accept() {
  const auto link = backlog_.front();
  backlog_.pop_front();
  ++validations;
  if (!admits) {
    return serverCloses(*link);
  }
  link->accepted = true;
  links_.push_back(link);
}

/// One turn's read and write event of a connection; false if there is none.
bool Model::serverEvent(Link& link) {
  if (!link.serverOpen || (link.clientOpen && link.toServer.empty())) {
    return false;
  }
  ++readEvents;
  const bool reset = std::exchange(link.resetAtServer, false);
  if (reset) {
    ++log[kReadReset];
  }
  if (reset || link.toServer.empty()) {
    serverCloses(link);
    return true;
  }
  const std::string text = link.toServer.front();
  link.toServer.pop_front();
  handle(link, text);
  if (link.serverOpen && link.serverBlocked) {
    serverCloses(link);
  }
  return true;
}

void Model::handle(Link& link, const std::string& text) {
  const bool on = text == record(Kind::kOn, 0, 0);
  if (text == record(Kind::kNotJson, 0, 0)) {
    ++log[kInvalid];
  } else if (on || text == record(Kind::kOff, 0, 0)) {
    if (!link.subscribed) {
      answer(link, reply(0));
    }
    link.subscribed = on;
  } else if (text != record(Kind::kSwallowed, 0, 0)) {
    const auto place = static_cast<std::size_t>(text[text.size() - 2] - '0');
    handled[place][link.number].push_back(text);
    if (text.rfind("{\"echo\"", 0) == 0) {
      answer(link, text);
    } else if (text.rfind("{\"call\"", 0) == 0 && !link.subscribed) {
      answer(link, reply(static_cast<unsigned>(std::stoul(text.substr(8)))));
    }
  }
}

// --- raw and blocking clients ---

std::shared_ptr<Link> Model::newLink() {
  backlog_.push_back(std::make_shared<Link>());
  backlog_.back()->number = ++lastLink_;
  return backlog_.back();
}

bool Model::connect(unsigned place) {
  if (up) {
    clients[place].link = newLink();
  }
  clients[place].reading = true;
  return up;
}

int Model::send(unsigned place, const std::string& text) {
  Link& link = *clients[place].link;
  if (!link.serverOpen) {
    return std::exchange(link.resetAtClient, false) ? ECONNRESET : EPIPE;
  }
  link.toServer.push_back(text);
  return 0;
}

void Model::clientCloses(Link& link) {
  link.clientOpen = false;
  link.resetAtServer = link.serverOpen && !link.toClient.empty();
  link.toClient.clear();
}

void Model::close(unsigned place) {
  clientCloses(*std::exchange(clients[place].link, nullptr));
}

std::string Model::next(unsigned place) const {
  const Link& link = *clients[place].link;
  return link.resetAtClient       ? "<reset>"
         : !link.toClient.empty() ? link.toClient.front()
         : link.serverOpen        ? "<nothing>"
                                  : "<end>";
}

void Model::take(unsigned place) {
  Link& link = *clients[place].link;
  if (!std::exchange(link.resetAtClient, false) && !link.toClient.empty()) {
    link.toClient.pop_front();
    link.readSince += link.serverOpen ? 0 : 1;
  }
}

// --- asynchronous clients ---

void Model::create(unsigned place, bool subscribes, Time interval) {
  Client& client = clients[place];
  client = {};
  client.exists = true;
  client.subscribes = subscribes;
  client.interval = interval;
  client.deadline = now_;
}

void Model::destroy(unsigned place) {
  if (clients[place].link) {
    clientCloses(*clients[place].link);
  }
  clients[place] = {};
}

void Model::asyncSend(unsigned place, const std::string& text) {
  clients[place].queue.push_back(text);
  flush(clients[place]);
}

void Model::flush(Client& client) {
  if (!client.link) {
    return;
  }
  Link& link = *client.link;
  if (link.serverOpen) {
    link.toServer.insert(link.toServer.end(), client.queue.begin(), client.queue.end());
    client.queue.clear();
  } else if (std::exchange(link.resetAtClient, false)) {
    link.clientBlocked = true;
    ++log[kWriteReset];
  } else {
    lose(client);
  }
}

void Model::lose(Client& client) {
  if (client.link) {
    clientCloses(*std::exchange(client.link, nullptr));
    client.queue.clear();
  }
  client.deadline = now_ + client.interval;
}

void Model::drop(unsigned place) {
  lose(clients[place]);
}

/// An attempt to connect, which replaces a connection.
void Model::retry(unsigned place) {
  Client& client = clients[place];
  const auto link = up ? newLink() : nullptr;
  lose(client);
  client.link = link;
  if (!link) {
    return;
  }
  client.events.emplace_back("connected");
  if (client.subscribes) {
    asyncSend(place, record(Kind::kOn, 0, 0));
  }
}

/// One turn's events of an asynchronous client; false if there are none.
bool Model::asyncEvent(Client& client) {
  if (!client.link) {
    return false;
  }
  Link& link = *client.link;
  if (link.serverOpen && link.toClient.empty()) {
    return false;
  }
  const bool reset = std::exchange(link.resetAtClient, false);
  if (reset) {
    ++log[kReadReset];
  }
  if (reset || link.toClient.empty()) {
    lose(client);
    return true;
  }
  client.events.push_back(link.toClient.front());
  link.toClient.pop_front();
  if (link.clientBlocked) {
    lose(client);
  }
  return true;
}

void Model::settle() {
  for (bool again = true; again;) {
    again = !backlog_.empty();
    while (!backlog_.empty()) {
      accept();
    }
    for (const auto& link : links_) {
      again |= serverEvent(*link);
    }
    links_.erase(std::remove_if(links_.begin(), links_.end(),
                                [](const auto& link) { return !link->serverOpen; }),
                 links_.end());
    for (unsigned place = kFirstAsync; place < kClients; ++place) {
      Client& client = clients[place];
      again |= asyncEvent(client);
      if (client.exists && !client.link && client.deadline <= now_) {
        retry(place);
        again = true;
      }
    }
  }
}

}  // namespace model
