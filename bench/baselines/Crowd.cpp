// Many clients in one process, without the library, so that both servers see the same ones.

#include <unistd.h>

#include <vector>

#include "bench/baselines/Baselines.h"

namespace Bench {

namespace {

class Crowd {
 public:
  explicit Crowd(std::string name) : name_(std::move(name)), speaker_(connectTo(name_)) {
    ask(speaker_, kRequest);
  }
  ~Crowd() {
    drop();
    ::close(speaker_);
  }
  Crowd(const Crowd&) = delete;
  Crowd& operator=(const Crowd&) = delete;

  /// Connects that number of clients; the last one's reply means that all have been admitted.
  Samples connect(unsigned count) {
    return timed(1, [&] {
      for (unsigned i = 0; i < count; ++i) {
        members_.push_back(connectTo(name_));
      }
      ask(members_.back(), kRequest);
    });
  }

  /// Connects that number, one after the other, each with a first request and its reply.
  Samples admit(unsigned count) {
    return timed(count, [&] {
      members_.push_back(connectTo(name_));
      ask(members_.back(), kRequest);
    });
  }

  Samples subscribe(unsigned count) {
    const std::size_t before = members_.size();
    connect(count);
    for (std::size_t i = before; i < members_.size(); ++i) {
      ask(members_[i], kSubscription);
    }
    return {};
  }

  /// Has that number of broadcasts made, one at a time, each received by every member.
  Samples broadcast(unsigned count) {
    return timed(count, [&] {
      ask(speaker_, kTrigger);
      for (const int member : members_) {
        answerFrom(member);
      }
    });
  }

  /// All leave, and the server is given the occasion to forget them: one more client comes.
  Samples drop() {
    for (const int member : members_) {
      ::close(member);
    }
    members_.clear();
    const int last = connectTo(name_);
    ask(last, kRequest);
    ::close(last);
    ask(speaker_, kRequest);
    return {};
  }

 private:
  static void ask(int fd, std::string_view text) {
    writeRecord(fd, text);
    answerFrom(fd);
  }

  const std::string name_;
  const int speaker_;
  std::vector<int> members_;
};

}  // namespace

void driveCrowd(const std::string& name) {
  Crowd crowd(name);
  obey({{"connect", [&](unsigned count) { return crowd.connect(count); }},
        {"admit", [&](unsigned count) { return crowd.admit(count); }},
        {"subscribe", [&](unsigned count) { return crowd.subscribe(count); }},
        {"broadcast", [&](unsigned count) { return crowd.broadcast(count); }},
        {"drop", [&](unsigned) { return crowd.drop(); }}});
}

}  // namespace Bench
