#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tool {

enum class JsonStyle { kNone, kShort, kPretty, kByTerminal };

/// All that a command line can say, for whichever verb. Verbs.cpp tells which verb takes what.
struct Options {
  // Common to every verb.
  std::optional<double> timeout;  // seconds, 0 for ever; without one, the verb has its default
  std::string json;               // "short", "pretty" or none
  std::string color = "auto";
  std::optional<std::uint64_t> serverUid;
  int verbose = 0;
  bool jsonByTerminal = false;
  bool quiet = false;

  // Flags of single verbs.
  bool all = false;
  bool denyAll = false;
  bool gone = false;
  bool longForm = false;
  bool man = false;
  bool noReconnect = false;
  bool refuseUnsafe = false;
  bool reply = false;
  bool statusOnly = false;
  bool timestamps = false;

  // Arguments.
  std::vector<std::string> names;
  std::string name;
  std::string upstream;
  std::string text = "-";  // a message, or "-" for standard input
  std::string file = "-";
  std::string word;  // a shell, or a verb

  // Options of single verbs.
  std::vector<std::uint64_t> allowGids;
  std::vector<std::uint64_t> allowUids;
  std::optional<std::uint64_t> clients;
  std::optional<std::uint64_t> count;
  std::string exec;
  std::optional<double> interval;
  std::string notify;
  std::vector<std::uint64_t> okStatuses;
  std::string record;
  std::string replay;
  std::optional<std::uint64_t> size;
  std::optional<std::uint64_t> status;
  std::vector<std::string> where;

  JsonStyle jsonStyle() const {
    if (json.empty()) {
      return jsonByTerminal ? JsonStyle::kByTerminal : JsonStyle::kNone;
    }
    return json == "pretty" ? JsonStyle::kPretty : JsonStyle::kShort;
  }
};

}  // namespace tool
