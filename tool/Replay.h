#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "tool/Conversation.h"
#include "tool/Recording.h"
#include "tool/Run.h"

namespace tool {

/// Plays the clients' side of a recording, in its order. Where the recording has a reply, the
/// server's reply on that connection is waited for and compared; what else came from the server
/// depends on more than the clients, and is not waited for.
class Replay {
 public:
  /// `begin` makes a conversation without a client; `finished` is called at the end.
  Replay(const Options& options, std::vector<Record> script, std::function<Conversation&()> begin,
         std::function<void()> finished);

  /// Shown every record that a conversation of the replay receives.
  void saw(const Record& record);
  void ended(std::uint64_t connection, const Failure& why);

 private:
  /// What plays one recorded connection.
  struct Player {
    Conversation* conversation = nullptr;
    std::deque<unsigned> replies;  // came, and not compared yet
    bool ended = false;
    Failure why{Exit::kSuccess, ""};  // it ended; a success if the server had read everything
  };

  void step();
  bool play(const Record& record);
  bool compare(Player& player, unsigned recorded);
  [[noreturn]] void failEnded(const Player& player) const;
  void finishWhenTaken();

  const std::vector<Record> script_;
  const std::function<Conversation&()> begin_;
  const std::function<void()> finished_;
  std::size_t at_ = 0;                       // in the script
  std::map<std::uint64_t, Player> players_;  // by recorded connection
  std::uint64_t differences_ = 0;
  bool finishing_ = false;
  Alarm next_;
  Deadline deadline_;
};

}  // namespace tool
