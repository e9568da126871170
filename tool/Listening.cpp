#include "tool/Listening.h"

#include "Api/Admission.h"
#include "tool/Verb.h"

namespace tool {

namespace {

using namespace Tovik::Admission;

Rule ruleFor(const Admitted& admitted) {
  if (admitted.nobody) {
    return users({});
  }
  if (admitted.uids.empty() && admitted.gids.empty()) {
    return root() || sameUser();
  }
  return users({admitted.uids.begin(), admitted.uids.end()}) ||
         groups({admitted.gids.begin(), admitted.gids.end()});
}

}  // namespace

Tovik::Server::Validator validator(const Admitted& admitted) {
  return [rule = ruleFor(admitted)](int pid, unsigned uid, unsigned gid) {
    const bool admits = rule(pid, uid, gid);
    if (!admits) {
      notice("refused process " + std::to_string(pid) + ", uid " + std::to_string(uid) + ", gid " +
             std::to_string(gid) + "; --allow-uid or --allow-gid admits others.");
    }
    return admits;
  };
}

void listening(const std::string& name, const std::function<void()>& serve) {
  try {
    serve();
  } catch (const Tovik::SocketException& error) {
    throw Failure(Exit::kUsage, "the name " + inQuotes(name) + " cannot be had: " + error.what() +
                                    "; see who has it with 'tovik list --long', or choose "
                                    "another.");
  }
}

}  // namespace tool
