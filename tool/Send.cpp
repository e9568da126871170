// send: messages one after the other, then a look whether the server has read the last one. A
// server loses what it has not read when its client closes with replies unread, so the replies are
// read, and dropped, until then.

#include "tool/Lines.h"
#include "tool/Session.h"
#include "tool/Verb.h"

namespace tool {

namespace {

struct SendOptions {
  std::string name;
  std::string text = "-";
  std::optional<std::uint64_t> count;
  std::optional<double> interval;
};

class Sender : private Session {
 public:
  Sender(const SendOptions& options, const Common& common, Run& run)
      : Session(options.name, common),
        options_(options),
        run_(run),
        source_(options.text, options.count.value_or(1),
                [this](const std::string* message) { take(message); }),
        deadline_(common.timeLimit(5), [this, &common] { return late(common.timeLimit(5)); }) {
    deadline_.restart();
  }

 private:
  std::string late(double limit) const {
    return full() ? lateText(limit)
                  : "the server " + inQuotes(name()) + " did not read on within " + seconds(limit) +
                        "; give it more with --timeout.";
  }

  void connected() override {
    deadline_.disarm();
    source_.want();
  }

  void take(const std::string* message) {
    if (message == nullptr) {
      return finish();
    }
    if (closed_) {
      throw lostFailure();
    }
    ++sent_;
    send(*message);
    if (isAttached() && allWritten()) {
      next();
    } else {
      deadline_.restart();  // for the server to make room
    }
  }

  void written() override {
    deadline_.disarm();
    next();
  }

  void next() {
    if (sent_ == options_.count) {
      return finish();
    }
    if (options_.interval.value_or(0) > 0) {
      return pause_.arm(*options_.interval);
    }
    source_.want();
  }

  void finish() {
    deadline_.restart();
    look();
  }

  void look() {
    if (closed_ || allTaken()) {
      return run_.finish();
    }
    lookAgain_.arm(0.005);
  }

  void received(std::string /*reply*/) override {}

  void lost(int error) override {
    if (error != 0) {
      throw lostFailure();
    }
    closed_ = true;  // after it had read everything so far
  }

  const SendOptions& options_;
  Run& run_;
  MessageSource source_;
  Alarm pause_{[this] { source_.want(); }};
  Alarm lookAgain_{[this] { look(); }};
  Deadline deadline_;
  std::uint64_t sent_ = 0;
  bool closed_ = false;
};

}  // namespace

void addSend(Program& program) {
  const auto run = [](const SendOptions& options, const Common& common) {
    Run loop(Ending::kIsFailure);
    const Sender sender(options, common, loop);
    loop.untilFinished();
  };
  auto [verb, options] = program.verb<SendOptions>(
      "send", "sends messages without waiting for replies",
      "Ends when the server has read all of them. The time-out, 5 seconds, is for the server to "
      "take the next one.",
      run);
  verb.argument(kName, Needed::kYes, name(options.name))
      .argument("JSON", Needed::kNo, text(options.text))
      .option("--count", "N", number(options.count, 1, UINT64_MAX),
              "send the message N times, or at most N lines")
      .option("--interval", "SECONDS", seconds(options.interval), "pause between two messages");
}

}  // namespace tool
