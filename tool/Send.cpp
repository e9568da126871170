// send: messages one after the other, then a look whether the server has read the last one. A
// server loses what it has not read when its client closes with replies unread, so the replies are
// read, and dropped, until then.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

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

class Sender : public Session {
 public:
  using Session::Session;

  bool wroteAll() const {
    if (closed_) {
      throw lostFailure();
    }
    return isAttached() && allWritten();
  }
  bool done() const { return closed_ || allTaken(); }

  std::string lateText(double limit) const {
    return full() ? Session::lateText(limit)
                  : "the server " + inQuotes(name()) + " did not read on within " +
                        secondsText(limit) + "; give it more with --timeout.";
  }

 private:
  void received(std::string /*reply*/) override {}

  void lost(int error) override {
    if (error != 0) {
      throw lostFailure();
    }
    closed_ = true;  // after it had read everything so far
  }

  bool closed_ = false;
};

void sendAll(const SendOptions& options) {
  constexpr double kLookAgain = 0.005;
  Run run(Ending::kIsFailure);
  Messages messages(run, options.text, options.count.value_or(1));
  Sender sender(options.name);
  const double limit = common.timeLimit();
  const auto wroteAll = [&] { return sender.wroteAll(); };
  const auto late = [&] { return sender.lateText(limit); };
  run.within(limit, wroteAll, late);  // there is a connection
  for (std::uint64_t sent = 0; sent != options.count;) {
    const auto message = messages.next();
    if (!message) {
      break;
    }
    run.pause(sent == 0 ? 0 : options.interval.value_or(0));
    wroteAll();
    sender.send(*message);
    run.within(limit, wroteAll, late);
    ++sent;
  }
  run.within(
      limit, [&] { return sender.done(); }, late, kLookAgain);
}

}  // namespace

void addSend(CLI::App& program) {
  auto [verb, options] = addVerb(program, "send", "sends messages without waiting for replies",
                                 "Ends when the server has read all of them. The time-out, 5 "
                                 "seconds, is for the server to take each message.",
                                 sendAll);
  verb.argument(kName, name(options.name))
      .argument("[JSON]", text(options.text))
      .option("--count", "N", number(options.count, 1, UINT64_MAX),
              "send the message N times, or at most N lines")
      .option("--interval", "SECONDS", seconds(options.interval), "pause between two messages");
}

}  // namespace tool
