#include "tests/model/Model.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <utility>

#include "tests/model/VirtualClock.h"

namespace model {

std::string reply(unsigned status) {
  return R"({"type":"reply","status":)" + std::to_string(status) + "}";
}

// --- either end ---

namespace {

void leave(End& end, End& other) {
  end.open = false;
  other.reset = other.open && !end.unread.empty();
  end.unread.clear();
}

void closeServer(Link& link) {
  leave(link.server, link.client);
  link.mayBeCut = link.client.unread.size() > kSurelyInSocket;
}

}  // namespace

/// False if that ends the connection.
bool Model::write(End& from, End& to, Texts& texts) {
  if (to.open) {
    std::move(texts.begin(), texts.end(), std::back_inserter(to.unread));
    texts.clear();
    return true;
  }
  from.blocked = std::exchange(from.reset, false);
  if (from.blocked) {
    ++log["AsyncSender::flushQueue(): write error Connection reset by peer"];
  }
  return from.blocked;
}

/// Nothing if that ends the connection.
std::optional<std::string> Model::read(End& end) {
  if (std::exchange(end.reset, false)) {
    ++log["AsyncSender::asynRead(): read failed -> Connection reset by peer"];
    return std::nullopt;
  }
  if (end.unread.empty()) {
    return std::nullopt;
  }
  const std::string text = end.unread.front();
  end.unread.pop_front();
  return text;
}

// --- the server ---

void Model::start() {
  up = true;
  validations = readEvents = 0;
}

void Model::stop() {
  up = false;
  for (const auto& link : backlog_) {
    link->server.open = false;
    link->client.reset = link->client.open;
  }
  backlog_.clear();
  for (const auto& link : links_) {
    closeServer(*link);
  }
  links_.clear();
}

void Model::notify(const std::string& text) {
  for (const auto& link : links_) {
    if (link->subscribed && link->server.open) {
      answer(*link, text);
    }
  }
}

void Model::answer(Link& link, const std::string& text) {
  Texts texts{text};
  if (!write(link.server, link.client, texts)) {
    closeServer(link);
  }
}

void Model::accept() {
  const auto link = backlog_.front();
  backlog_.pop_front();
  ++validations;
  if (!admits) {
    return closeServer(*link);
  }
  links_.push_back(link);
}

/// One turn's read and write event of a connection; false if there is none.
bool Model::serverEvent(Link& link) {
  if (!link.server.open || (link.client.open && link.server.unread.empty())) {
    return false;
  }
  ++readEvents;
  const auto text = read(link.server);
  if (text) {
    handle(link, *text);
  }
  if (link.server.open && (!text || link.server.blocked)) {
    closeServer(link);
  }
  return true;
}

void Model::handle(Link& link, const std::string& text) {
  const bool on = text == kOn;
  if (text == kNotJson) {
    ++log["Connection::readFdEvent(): Invalid JSON message"];
  } else if (on || text == kOff) {
    if (!link.subscribed) {
      answer(link, reply(0));
    }
    link.subscribed = on;
  } else if (text != kSwallowed) {
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
  if (!link.server.open) {
    return std::exchange(link.client.reset, false) ? ECONNRESET : EPIPE;
  }
  link.server.unread.push_back(text);
  return 0;
}

void Model::close(unsigned place) {
  if (const auto link = std::exchange(clients[place].link, nullptr)) {
    leave(link->client, link->server);
  }
}

std::string Model::next(unsigned place) const {
  const Link& link = *clients[place].link;
  return link.client.reset             ? "<error>"
         : !link.client.unread.empty() ? link.client.unread.front()
         : link.server.open            ? "<nothing>"
                                       : "<end>";
}

void Model::take(unsigned place) {
  Link& link = *clients[place].link;
  if (!std::exchange(link.client.reset, false) && !link.client.unread.empty()) {
    link.client.unread.pop_front();
    link.readSince += link.server.open ? 0 : 1;
  }
}

// --- asynchronous clients ---

void Model::create(unsigned place, bool subscribes, Time interval) {
  Client& client = clients[place];
  client.exists = true;
  client.subscribes = subscribes;
  client.interval = interval;
  client.deadline = VirtualClock::now();
}

void Model::destroy(unsigned place) {
  close(place);
  clients[place] = {};
}

void Model::asyncSend(unsigned place, const std::string& text) {
  Client& client = clients[place];
  client.queue.push_back(text);
  if (client.link && !write(client.link->client, client.link->server, client.queue)) {
    lose(place);
  }
}

void Model::lose(unsigned place) {
  Client& client = clients[place];
  if (client.link) {
    close(place);
    client.queue.clear();
  }
  client.deadline = VirtualClock::now() + client.interval;
}

/// An attempt to connect, which replaces a connection.
void Model::retry(unsigned place) {
  Client& client = clients[place];
  const auto link = up ? newLink() : nullptr;
  lose(place);
  client.link = link;
  if (!link) {
    return;
  }
  client.events.emplace_back("connected");
  if (client.subscribes) {
    asyncSend(place, kOn);
  }
}

/// One turn's events of an asynchronous client; false if there are none.
bool Model::asyncEvent(unsigned place) {
  Client& client = clients[place];
  if (!client.link) {
    if (!client.exists || client.deadline > VirtualClock::now()) {
      return false;
    }
    retry(place);
    return true;
  }
  End& end = client.link->client;
  if (client.link->server.open && end.unread.empty()) {
    return false;
  }
  const auto text = read(end);
  if (text) {
    client.events.push_back(*text);
  }
  if (!text || end.blocked) {
    lose(place);
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
                                [](const auto& link) { return !link->server.open; }),
                 links_.end());
    for (unsigned place = kFirstAsync; place < kClients; ++place) {
      again |= asyncEvent(place);
    }
  }
}

}  // namespace model
