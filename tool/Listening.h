#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "Api/Json/Server.h"

namespace tool {

/// Whom a verb that listens admits.
struct Admitted {
  bool nobody = false;
  std::vector<std::uint32_t> uids;
  std::vector<std::uint32_t> gids;
};

/// The own user and root, or whom the options name. Refusals are reported.
Tovik::Server::Validator validator(const Admitted& admitted);

/// Runs `serve`, which makes a server of that name; a name that cannot be had becomes a failure.
void listening(const std::string& name, const std::function<void()>& serve);

}  // namespace tool
