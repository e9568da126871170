#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

// The server's process. It answers {"call":N} with status N, counts {"note":N}, and broadcasts
// {"run":R,"sequence":N,"sent":T,"padding":P}: R tells one server from the next under the same
// name, N counts from 1, T is the time.

namespace Soak {

/// Faults that a server can be given, so that it shows whether they are noticed.
enum class Sabotage { kNone, kDrop, kDouble, kLeak, kDescriptor, kWake, kLate, kMute };

inline const std::map<std::string, Sabotage> kSabotages = {
    {"drop", Sabotage::kDrop},              // one broadcast of a hundred
    {"double", Sabotage::kDouble},          // likewise
    {"leak", Sabotage::kLeak},              // memory, with each broadcast
    {"descriptor", Sabotage::kDescriptor},  // one for each hundred broadcasts
    {"wake", Sabotage::kWake},              // 50 times a second
    {"late", Sabotage::kLate},              // admits nobody at first, if it is not the first run
    {"mute", Sabotage::kMute},              // leaves one call of a hundred without an answer
};

struct ServerSetup {
  std::string name;
  std::uint64_t run = 1;
  std::size_t padding = 0;
  Sabotage sabotage = Sabotage::kNone;
};

struct ServerFigures {
  std::uint64_t sequence = 0;   // of the last broadcast
  std::uint64_t admitted = 0;   // clients
  std::uint64_t notes = 0;      // taken
  std::uint64_t textSize = 0;   // of the last broadcast
  std::uint64_t heapInUse = 0;  // bytes
};

void serve(const ServerSetup& setup, int commands);

}  // namespace Soak
