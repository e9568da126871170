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
  bool jsonByTerminal = false;
  bool quiet = false;
  int verbose = 0;
  std::optional<std::uint64_t> serverUid;
  std::string color = "auto";

  // Arguments.
  std::vector<std::string> names;
  std::string name;
  std::string upstream;
  std::string text = "-";  // a message, or "-" for standard input
  std::string file = "-";
  std::string word;  // a shell, or a verb

  // Options of single verbs.
  bool all = false;
  std::vector<std::uint64_t> allowGids;
  std::vector<std::uint64_t> allowUids;
  std::optional<std::uint64_t> clients;
  std::optional<std::uint64_t> count;
  bool denyAll = false;
  std::string exec;
  bool gone = false;
  std::optional<double> interval;
  bool longForm = false;
  bool man = false;
  bool noReconnect = false;
  std::string notify;
  std::vector<std::uint64_t> okStatuses;
  std::string record;
  bool refuseUnsafe = false;
  std::string replay;
  bool reply = false;
  std::optional<std::uint64_t> size;
  std::optional<std::uint64_t> status;
  bool statusOnly = false;
  bool timestamps = false;
  std::vector<std::string> where;

  JsonStyle jsonStyle() const {
    if (jsonByTerminal && json.empty()) {
      return JsonStyle::kByTerminal;
    }
    return json.empty() ? JsonStyle::kNone
                        : (json == "pretty" ? JsonStyle::kPretty : JsonStyle::kShort);
  }
};

}  // namespace tool
