// replay: the clients' side of a recording, in its order; each recorded connection is a session of
// its own. Where the recording has a reply, the server's reply on that connection is waited for and
// compared; what else came from the server depends on more than the clients, and is not waited for.

#include <unistd.h>

#include <algorithm>
#include <deque>
#include <map>
#include <utility>

#include "tool/Lint.h"
#include "tool/Recording.h"
#include "tool/Session.h"
#include "tool/Verb.h"

namespace tool {

namespace {

struct ReplayOptions {
  std::string name;
  std::string file;
  std::string record;
  bool timestamps = false;
};

class Replay {
 public:
  Replay(const ReplayOptions& options, const Common& common)
      : options_(options),
        common_(common),
        script_(readRecording(options.file)),
        log_(common, options.record, options.timestamps),
        deadline_(common.timeLimit(5), [this] { return late(); }) {}

  void run() {
    pump_.want();
    run_.untilFinished();
    for (const auto& [connection, player] : players_) {
      player.throwTrouble();
    }
    if (differences_ > 0) {
      throw Failure(Exit::kStatus, counted(differences_, "difference") + " from the recording.");
    }
  }

 private:
  /// What plays one recorded connection.
  class Player : public Session {
   public:
    Player(Replay& replay, std::uint64_t number)
        : Session(replay.options_.name, replay.common_), replay_(replay) {
      stamp_.connection = number;
      stamp_.pid = ::getpid();
      stamp_.uid = ::getuid();
      notice("connection " + std::to_string(number) + ".");
    }

    void play(const std::string& text) {
      requireOpen();
      show(Direction::kToServer, text);
      send(text);
    }

    /// The next reply's status, once it is there.
    std::optional<unsigned> takeReply() {
      if (replies_.empty()) {
        requireOpen();
        return std::nullopt;
      }
      const unsigned status = replies_.front();
      replies_.pop_front();
      return status;
    }

    bool done() const { return gone_ || (allWritten() && allTaken()); }
    void throwTrouble() const {
      if (why_.status() != Exit::kSuccess) {
        throw why_;
      }
    }

   private:
    void connected() override {}
    void received(std::string record) override {
      show(Direction::kToClient, record);
      if (const auto status = lint(asRead(record)).replyStatus) {
        replies_.push_back(*status);
        replay_.pump_.want();
      }
    }
    void lost(int error) override {
      end(error == 0 ? Failure(Exit::kSuccess, "the server left.") : lostFailure());
    }
    void notConnected(int error) override { end(notConnectedFailure(error)); }

    void end(const Failure& why) {
      notice("connection " + std::to_string(stamp_.connection) + ": " + why.what());
      gone_ = true;
      why_ = why;
      replay_.pump_.want();
    }

    void requireOpen() const {
      if (gone_) {
        throw Failure(
            why_.status() == Exit::kSuccess ? Exit::kLost : why_.status(),
            "record " + std::to_string(replay_.at_ + 1) + " cannot be played: " + why_.what());
      }
    }

    void show(Direction direction, const std::string& text) {
      stamp_.direction = direction;
      stamp_.text = text;
      replay_.log_.show(stamp_);
    }

    Replay& replay_;
    Record stamp_;
    std::deque<unsigned> replies_;  // came, and not compared yet
    bool gone_ = false;
    Failure why_{Exit::kSuccess, ""};  // a success if the server had read everything
  };

  /// Plays one record, and wants the next unless the server has to do something first.
  void step() {
    if (at_ == script_.size()) {
      return finish();
    }
    const Record& record = script_[at_];
    deadline_.restart();
    if (!record.refused && !played(record)) {
      return;
    }
    ++at_;
    pump_.want();
  }

  bool played(const Record& record) {
    Player& player =
        players_.try_emplace(record.connection, *this, players_.size() + 1).first->second;
    if (record.direction == Direction::kToServer) {
      player.play(record.text);
      return true;
    }
    const auto recorded = lint(asRead(record.text)).replyStatus;
    const auto status = recorded ? player.takeReply() : std::nullopt;
    if (recorded && status && *status != *recorded) {
      ++differences_;
      notice("record " + std::to_string(at_ + 1) + ": status " + std::to_string(*status) +
             " instead of the recorded " + std::to_string(*recorded) + ".");
    }
    return !recorded || status;
  }

  void finish() {
    const auto done = [](const auto& entry) { return entry.second.done(); };
    if (std::all_of(players_.begin(), players_.end(), done)) {
      return run_.finish();
    }
    again_.arm(0.005);
  }

  std::string late() const {
    return "the server " + inQuotes(options_.name) + " did not do as recorded within " +
           seconds(common_.timeLimit(5)) + "; give it more with --timeout.";
  }

  const ReplayOptions& options_;
  const Common& common_;
  const std::vector<Record> script_;
  RecordLog log_;
  Run run_{Ending::kIsFailure};
  std::size_t at_ = 0;  // in the script
  std::uint64_t differences_ = 0;
  Deadline deadline_;
  Pump pump_{[this] { step(); }};
  Alarm again_{[this] { pump_.want(); }};
  std::map<std::uint64_t, Player> players_;  // by recorded connection
};

}  // namespace

void addReplay(Program& program) {
  const auto run = [](const ReplayOptions& options, const Common& common) {
    Replay(options, common).run();
  };
  auto [verb, options] = program.verb<ReplayOptions>(
      "replay", "plays the clients' side of a recording",
      "Sends what the clients of a recorded 'tovik relay' sent, over as many connections, and "
      "waits for each recorded reply; one with another status than recorded counts as not "
      "allowed. FILE may be - for standard input. The time-out, 5 seconds, is for each reply.",
      run);
  verb.argument(kName, Needed::kYes, name(options.name))
      .argument(kFile, Needed::kYes, text(options.file))
      .option("--record", kFile, text(options.record), "append every record to this file")
      .flag("--timestamps", options.timestamps, "the time before each record");
}

}  // namespace tool
