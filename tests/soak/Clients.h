#pragma once

#include <cstdint>
#include <string>

#include "tests/soak/Times.h"

// A process of asynchronous clients: subscribers that check every notification, callers that check
// every reply.

namespace Soak {

struct ClientsSetup {
  std::string name;
  unsigned subscribers = 0;
  unsigned callers = 0;
  int interval = 3600;  // seconds
};

struct ClientsFigures {
  std::uint64_t received = 0;  // notifications
  std::uint64_t lost = 0;      // left out while connected
  std::uint64_t doubled = 0;   // come twice, or after a later one
  std::uint64_t calls = 0;     // answered
  std::uint64_t wrong = 0;     // replies
  Spread notices;              // from before the broadcast to the handler
  Spread answers;
};

void runClients(const ClientsSetup& setup, int commands);

}  // namespace Soak
