#include "tool/Listening.h"

#include <unistd.h>

#include "Api/Json/Types.h"

namespace tool {

Admission::Admission(const Options& options)
    : denyAll_(options.denyAll),
      uids_(options.allowUids.begin(), options.allowUids.end()),
      gids_(options.allowGids.begin(), options.allowGids.end()) {}

bool Admission::operator()(int pid, unsigned uid, unsigned gid) const {
  if (admits(uid, gid)) {
    return true;
  }
  notice("refused process " + std::to_string(pid) + ", uid " + std::to_string(uid) + ", gid " +
         std::to_string(gid) + "; --allow-uid or --allow-gid admits others.");
  return false;
}

bool Admission::admits(unsigned uid, unsigned gid) const {
  if (denyAll_) {
    return false;
  }
  if (uids_.empty() && gids_.empty()) {
    return uid == 0 || uid == ::geteuid();
  }
  return uids_.count(uid) > 0 || gids_.count(gid) > 0;
}

Exit listening(const std::string& name, const std::function<Exit()>& serve) {
  try {
    return serve();
  } catch (const Tovik::SocketException& error) {
    throw Failure(Exit::kUsage, "the name " + inQuotes(name) + " cannot be had: " + error.what() +
                                    "; see who has it with 'tovik list --long', or choose "
                                    "another.");
  }
}

}  // namespace tool
