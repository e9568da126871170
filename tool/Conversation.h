#pragma once

#include <functional>
#include <memory>
#include <string>

#include "tool/Options.h"
#include "tool/Recording.h"
#include "tool/Report.h"

namespace tool {

/// One client's way to the server, through a relay: a connection to either side. What comes from
/// one is shown to the relay and then passed on to the other, byte for byte: the library's own
/// server would take some records apart, and die of others. Either side's end ends it, once the
/// other side has got what is on its way.
class Conversation {
 public:
  struct Hooks {
    std::function<bool(Record)> passes;  // asked for each record
    /// The reason is a success if the server had read everything.
    std::function<void(const Record& stamp, const Failure& why)> ended;
  };

  /// `stamp` has the connection's number and the client's process and user. `clientFd` is owned
  /// from now on; -1 for a replay, whose records come through `toServer`.
  Conversation(const Record& stamp, const Options& options, const Hooks& hooks, int clientFd);
  ~Conversation();

  std::uint64_t number() const { return stamp_.connection; }
  void toServer(const std::string& text);
  /// Everything that was sent to the server has been read by it.
  bool serverHasAll() const;
  bool ended() const { return ended_; }
  /// Ended, and nothing is on its way any more.
  bool over() const;

 private:
  class Client;
  class Upstream;

  void toClient(const std::string& text);
  bool passes(Direction direction, const std::string& text) const;
  void serverLeft(const Failure& why);
  void end(const Failure& why);

  const Record stamp_;
  const Hooks& hooks_;
  bool ended_ = false;
  bool serverGone_ = false;
  std::unique_ptr<Client> client_;
  std::unique_ptr<Upstream> upstream_;
};

}  // namespace tool
