#pragma once

#include <functional>
#include <set>
#include <string>

#include "tool/Options.h"
#include "tool/Report.h"

namespace tool {

/// Who may connect: the own user and root, or whom the options name. Refusals are reported.
class Admission {
 public:
  explicit Admission(const Options& options);
  bool operator()(int pid, unsigned uid, unsigned gid) const;

 private:
  bool admits(unsigned uid, unsigned gid) const;

  const bool denyAll_;
  const std::set<std::uint64_t> uids_;
  const std::set<std::uint64_t> gids_;
};

/// Runs `serve`, which makes a server of that name; a name that cannot be had becomes a failure.
Exit listening(const std::string& name, const std::function<Exit()>& serve);

}  // namespace tool
