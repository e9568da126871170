#pragma once

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/peers/Texts.h"

// A server and its clients on a system whose sockets come in patterns: req and rep for requests.
// Notes go through a push to a pull socket, which a thread of its own reads; when a request comes
// that way, it is answered by a pair that goes back. News go from a pub socket to one sub socket
// for each subscriber.
//
// A Socket is made of one of kReq, kRep, kPush, kPull, kPub and kSub (which subscribes to
// everything), and can bind, connect, send, and receive, at once or within a time.

namespace Bench {

template <class Socket>
void serveNotes(const std::string& url) {
  Socket notes(Socket::kPull);
  Socket answers(Socket::kPush);
  notes.bind(url + "-notes");
  answers.bind(url + "-answers");
  while (true) {
    const std::string answer = answerTo(notes.receive().c_str());
    if (!answer.empty()) {
      answers.send(answer);
    }
  }
}

template <class Socket>
void servePatterns(const std::string& path) {
  const std::string url = "ipc://" + path;
  const rapidjson::Document newsToTell = parsed(kNews);
  Socket requests(Socket::kRep);
  Socket news(Socket::kPub);
  requests.bind(url);
  news.bind(url + "-news");
  std::thread(serveNotes<Socket>, url).detach();
  announceReady();
  while (true) {
    const std::string request = requests.receive();
    if (request == kTrigger) {
      news.send(textOf(newsToTell));
    }
    requests.send(answerTo(request.c_str()));
  }
}

template <class Socket>
class PatternClient : public TextClient {
 public:
  explicit PatternClient(const std::string& path) : url_("ipc://" + path) {
    requests_.connect(url_);
  }

  void call() override {
    requests_.send(requestText());
    check(requests_.receive());
  }

  void stream(unsigned count) override {
    if (!notes_) {
      notes_ = std::make_unique<Socket>(Socket::kPush);
      notes_->connect(url_ + "-notes");
      answers_.connect(url_ + "-answers");
    }
    for (unsigned i = 0; i < count; ++i) {
      notes_->send(noteText());
    }
    notes_->send(requestText());
    check(answers_.receive());
  }

 private:
  const std::string url_;
  Socket requests_{Socket::kReq};
  std::unique_ptr<Socket> notes_;
  Socket answers_{Socket::kPull};
};

/// Many subscribers in one process.
template <class Socket>
class PatternCrowd {
 public:
  explicit PatternCrowd(const std::string& path) : url_("ipc://" + path) {
    requests_.connect(url_);
  }

  void subscribe(unsigned count) {
    for (unsigned i = 0; i < count; ++i) {
      members_.push_back(std::make_unique<Socket>(Socket::kSub));
      members_.back()->connect(url_ + "-news");
    }
    for (const auto& member : members_) {
      do {  // a subscription takes effect some time after it was made
        tell();
      } while (!member->receive(std::chrono::milliseconds(20)));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    for (const auto& member : members_) {
      while (member->receive(std::chrono::milliseconds(0))) {
      }
    }
  }

  /// That number of broadcasts, one at a time, each received by every member.
  void broadcast(unsigned count) {
    for (unsigned i = 0; i < count; ++i) {
      tell();
      for (const auto& member : members_) {
        if (!member->receive(std::chrono::seconds(10))) {
          throw std::runtime_error("news that did not arrive");
        }
      }
    }
  }

 private:
  void tell() {
    requests_.send(kTrigger);
    requests_.receive();
  }

  const std::string url_;
  Socket requests_{Socket::kReq};
  std::vector<std::unique_ptr<Socket>> members_;
};

template <class Socket>
int runPatterns(int argc, char** argv) {
  return runPeer<PatternClient<Socket>>(
      argc, argv, servePatterns<Socket>,
      {{"crowd", [](const std::string& path) {
          PatternCrowd<Socket> crowd(path);
          obey({{"subscribe", [&](unsigned count) { return crowd.subscribe(count), Samples{}; }},
                {"broadcast", [&](unsigned count) { return crowd.broadcast(count), Samples{}; }}});
        }}});
}

}  // namespace Bench
