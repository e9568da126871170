// send: messages one after the other, then a look whether the server has read the last one. A
// server loses what it has not read when its client closes with replies unread, so the replies are
// read, and dropped, until then.

#include <memory>

#include "tool/Lines.h"
#include "tool/Run.h"
#include "tool/Session.h"
#include "tool/Verbs.h"

namespace tool {

namespace {

class Sender : private Session {
 public:
  Sender(const Options& options, Run& run)
      : Session(options.name, options),
        options_(options),
        run_(run),
        source_(options, [this](Tovik::Message* message) { take(message); }),
        pause_([this] { source_.want(); }),
        lookAgain_([this] { finishWhenTaken(); }),
        deadline_(timeLimit(options, 5), [&options] {
          return "the server " + inQuotes(options.name) + " did not read on within " +
                 seconds(timeLimit(options, 5)) + "; give it more with --timeout.";
        }) {
    deadline_.restart();
  }

 private:
  void connected() override {
    deadline_.disarm();
    source_.want();
  }

  void take(Tovik::Message* message) {
    deadline_.restart();
    if (message == nullptr) {
      return finishWhenTaken();
    }
    if (closed_) {
      throw lostFailure();
    }
    ++sent_;
    asyncSendMsg(*message);
    if (isAttached() && allWritten()) {
      written();
    }
  }

  void written() override {
    if (sent_ == options_.count) {
      return finishWhenTaken();
    }
    deadline_.disarm();
    pause_.arm(options_.interval.value_or(0));
  }

  void finishWhenTaken() {
    if (closed_ || allTaken()) {
      return run_.finish(Exit::kSuccess);
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

  const Options& options_;
  Run& run_;
  MessageSource source_;
  Alarm pause_;
  Alarm lookAgain_;
  Deadline deadline_;
  std::uint64_t sent_ = 0;
  bool closed_ = false;
};

}  // namespace

Exit runSend(const Options& options) {
  Run run(Ending::kIsFailure);
  const Sender sender(options, run);
  return run.untilFinished();
}

}  // namespace tool
