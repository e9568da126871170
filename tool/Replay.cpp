#include "tool/Replay.h"

#include <algorithm>
#include <utility>

#include "tool/Lint.h"
#include "tool/Session.h"

namespace tool {

Replay::Replay(const Options& options, std::vector<Record> script,
               std::function<Conversation&()> begin, std::function<void()> finished)
    : script_(std::move(script)),
      begin_(std::move(begin)),
      finished_(std::move(finished)),
      next_([this] { step(); }),
      deadline_(timeLimit(options, 5), [&options] {
        return "the server " + inQuotes(options.upstream) + " did not do as recorded within " +
               seconds(timeLimit(options, 5)) + "; give it more with --timeout.";
      }) {
  next_.arm(0);
}

void Replay::step() {
  if (finishing_) {
    return finishWhenTaken();
  }
  deadline_.disarm();
  while (at_ < script_.size()) {
    if (!script_[at_].refused && !play(script_[at_])) {
      return deadline_.restart();  // until `saw` or `ended`
    }
    ++at_;
  }
  finishing_ = true;
  deadline_.restart();
  finishWhenTaken();
}

/// False if the server has to do something first.
bool Replay::play(const Record& record) {
  Player& player = players_[record.connection];
  if (record.direction == Direction::kToClient) {
    const auto status = lint(asRead(record.text)).replyStatus;
    return !status || compare(player, *status);
  }
  if (player.ended) {
    failEnded(player);
  }
  if (player.conversation == nullptr) {
    player.conversation = &begin_();
  }
  player.conversation->toServer(record.text);
  return true;
}

bool Replay::compare(Player& player, unsigned recorded) {
  if (player.replies.empty()) {
    if (player.ended) {
      failEnded(player);
    }
    return false;
  }
  const unsigned status = player.replies.front();
  player.replies.pop_front();
  if (status != recorded) {
    ++differences_;
    notice("record " + std::to_string(at_ + 1) + ": status " + std::to_string(status) +
           " instead of the recorded " + std::to_string(recorded) + ".");
  }
  return true;
}

void Replay::failEnded(const Player& player) const {
  throw Failure(player.why.status() == Exit::kSuccess ? Exit::kLost : player.why.status(),
                "record " + std::to_string(at_ + 1) + " cannot be played: " + player.why.what());
}

void Replay::saw(const Record& record) {
  for (auto& [recorded, player] : players_) {
    if (player.conversation == nullptr || player.conversation->number() != record.connection) {
      continue;
    }
    if (const auto status = lint(asRead(record.text)).replyStatus) {
      player.replies.push_back(*status);
      next_.arm(0);
    }
  }
}

void Replay::ended(std::uint64_t connection, const Failure& why) {
  for (auto& [recorded, player] : players_) {
    if (player.conversation != nullptr && player.conversation->number() == connection) {
      player.conversation = nullptr;  // it will be swept away
      player.ended = true;
      player.why = why;
      next_.arm(0);
    }
  }
}

void Replay::finishWhenTaken() {
  const bool taken = std::all_of(players_.begin(), players_.end(), [](const auto& entry) {
    const Conversation* const conversation = entry.second.conversation;
    return conversation == nullptr || conversation->serverHasAll();
  });
  if (!taken) {
    return next_.arm(0.005);
  }
  for (const auto& [recorded, player] : players_) {
    if (player.why.status() != Exit::kSuccess) {
      throw player.why;
    }
  }
  if (differences_ > 0) {
    throw Failure(Exit::kStatus, counted(differences_, "difference") +
                                     " from the recording; compare the two servers.");
  }
  finished_();
}

}  // namespace tool
