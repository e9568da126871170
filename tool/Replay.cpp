// replay: the clients' side of a recording, in its order; each recorded connection is a session of
// its own. Where the recording has a reply, the server's reply on that connection is waited for and
// compared; what else came from the server depends on more than the clients, and is not waited for.

#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tool/Json.h"
#include "tool/Lines.h"
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

/// What plays one recorded connection.
class Player : public Session {
 public:
  Player(const ReplayOptions& options, RecordLog& log, std::uint64_t number)
      : Session(options.name), log_(log) {
    stamp_.connection = number;
    stamp_.pid = ::getpid();
    stamp_.uid = ::getuid();
    notice("connection " + std::to_string(number) + ".");
  }

  void play(const std::string& text) {
    show(Direction::kToServer, text);
    send(text);
  }

  bool ended() const { return end_.has_value(); }
  bool hasReply() const { return !replies_.empty(); }
  unsigned takeReply() {
    const unsigned status = replies_.front();
    replies_.pop_front();
    return status;
  }
  bool done() const { return ended() || (allWritten() && allTaken()); }
  /// Why nothing more can be played; a success if the server had read everything.
  const Failure& end() const { return *end_; }

 private:
  void received(std::string record) override {
    show(Direction::kToClient, record);
    if (const auto status = lint(asRead(record)).replyStatus) {
      replies_.push_back(*status);
    }
  }
  void lost(int error) override {
    end(error == 0 ? Failure(Exit::kSuccess, "the server left.") : lostFailure());
  }
  void notConnected(int error) override { end(notConnectedFailure(error)); }

  void end(const Failure& why) {
    notice("connection " + std::to_string(stamp_.connection) + ": " + why.what());
    end_ = why;
  }

  void show(Direction direction, const std::string& text) {
    stamp_.direction = direction;
    stamp_.text = text;
    log_.show(stamp_);
  }

  RecordLog& log_;
  Record stamp_;
  std::deque<unsigned> replies_;  // came, and not compared yet
  std::optional<Failure> end_;
};

/// All records of a file ("-": standard input).
std::vector<Record> recordsOf(const std::string& file, Run& run) {
  std::vector<Record> records;
  Lines lines(run, file);
  while (const auto line = lines.next()) {
    if (!parseRecording(*line, records.emplace_back())) {
      throw Failure(Exit::kUsage, "line " + std::to_string(lines.number()) + " of " +
                                      inQuotes(file) +
                                      " is no record of a relay; nothing was sent.");
    }
  }
  if (records.empty()) {
    throw Failure(Exit::kUsage, inQuotes(file) +
                                    " holds no record of a relay; 'tovik relay "
                                    "--record' makes some.");
  }
  return records;
}

class Replay {
 public:
  explicit Replay(const ReplayOptions& options)
      : options_(options),
        records_(recordsOf(options.file, run_)),
        log_(options.record, options.timestamps) {}

  void play() {
    std::size_t number = 0;
    for (const Record& record : records_) {
      ++number;
      if (!record.refused) {
        play(record, "record " + std::to_string(number));
      }
    }
    wait(
        [this] {
          return std::all_of(players_.begin(), players_.end(),
                             [](const auto& player) { return player.second.done(); });
        },
        0.005);
    for (const auto& [connection, player] : players_) {
      if (player.ended() && player.end().status() != Exit::kSuccess) {
        throw Failure(player.end());
      }
    }
    if (differences_ > 0) {
      throw Failure(Exit::kStatus, counted(differences_, "difference") + " from the recording.");
    }
  }

 private:
  void play(const Record& record, const std::string& what) {
    Player& player =
        players_.try_emplace(record.connection, options_, log_, players_.size() + 1).first->second;
    const bool toServer = record.direction == Direction::kToServer;
    const auto recorded = toServer ? std::nullopt : lint(asRead(record.text)).replyStatus;
    if (recorded) {
      wait([&] { return player.hasReply() || player.ended(); });
    }
    if (player.ended() && (toServer || (recorded && !player.hasReply()))) {
      const Exit status = player.end().status();
      throw Failure(status == Exit::kSuccess ? Exit::kLost : status,
                    what + " cannot be played: " + player.end().what());
    }
    if (toServer) {
      player.play(record.text);
    } else if (recorded) {
      compare(player.takeReply(), *recorded, what);
    }
  }

  void compare(unsigned status, unsigned recorded, const std::string& what) {
    if (status != recorded) {
      ++differences_;
      notice(what + ": status " + std::to_string(status) + " instead of the recorded " +
             std::to_string(recorded) + ".");
    }
  }

  void wait(const std::function<bool()>& done, double interval = 0) {
    if (!run_.until(done, common.timeLimit(), interval)) {
      throw Failure(Exit::kTimeout,
                    "the server " + inQuotes(options_.name) + " did not do as recorded within " +
                        secondsText(common.timeLimit()) + "; give it more with --timeout.");
    }
  }

  const ReplayOptions& options_;
  Run run_{Ending::kIsFailure};
  const std::vector<Record> records_;
  RecordLog log_;
  std::map<std::uint64_t, Player> players_;  // by recorded connection
  std::uint64_t differences_ = 0;
};

void replay(const ReplayOptions& options) {
  Replay(options).play();
}

}  // namespace

void addReplay(CLI::App& program) {
  auto [verb, options] = addVerb(
      program, "replay", "plays the clients' side of a recording",
      "Sends what the clients of a recorded 'tovik relay' sent, over as many connections, and "
      "waits for each recorded reply; a reply with another status than the recorded one counts as "
      "not allowed. FILE may be - for standard input. The time-out, 5 seconds, is for each reply.",
      replay);
  verb.argument(kName, name(options.name))
      .argument(kFile, text(options.file))
      .option("--record", kFile, text(options.record), "append every record to this file")
      .flag("--timestamps", options.timestamps, "the time before each record");
}

}  // namespace tool
