#include "tool/Views.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>

#include "tool/Report.h"

namespace tool {

namespace {

/// For the letter that /proc has.
std::string stateText(char state) {
  switch (state) {
    case 'R':
      return "running";
    case 'S':
      return "sleeping";
    case 'D':
      return "waiting";
    case 'T':
      return "stopped";
    case 't':
      return "traced";
    case 'Z':
      return "zombie";
    default:
      return {state};
  }
}

/// "5s", "3m", "2h", "9d".
std::string ageText(double seconds) {
  constexpr std::uint64_t kMinute = 60;
  constexpr std::uint64_t kHour = 60 * kMinute;
  constexpr std::uint64_t kDay = 24 * kHour;
  const auto whole = static_cast<std::uint64_t>(std::max(seconds, 0.0));
  return whole < 2 * kMinute ? std::to_string(whole) + "s"
         : whole < 2 * kHour ? std::to_string(whole / kMinute) + "m"
         : whole < 2 * kDay  ? std::to_string(whole / kHour) + "h"
                             : std::to_string(whole / kDay) + "d";
}

/// "512", "1.5K", "30M".
std::string bytesText(std::uint64_t bytes) {
  static const char units[] = "KMGTPE";
  auto value = static_cast<double>(bytes);
  int unit = -1;
  for (; value >= 1000 && unit < 5; ++unit) {
    value /= 1024;
  }
  const std::string number = unit >= 0 && value < 10
                                 ? rounded(value)
                                 : std::to_string(static_cast<int>(std::nearbyint(value)));
  return unit < 0 ? number : number + units[unit];
}

void addProcess(Entry& entry, const Listener& listener) {
  const auto& uid = listener.uid;
  const Process& process = listener.process;
  entry.number("PID", "pid", when(process.known(), process.pid))
      .number(nullptr, "uid", uid)
      .text("USER", "user", when(uid.has_value(), userName(uid.value_or(0))))
      .text("PROCESS", "process", when(process.known(), process.name));
}

void addLoad(Entry& entry, const Listener& listener, bool live) {
  const auto waiting = [](const auto& number) { return number ? std::to_string(*number) : "-"; };
  const std::uint64_t unread = listener.unread.value_or(0);
  entry.number(live ? "CONNS" : "CONNECTIONS", "connections", std::optional(listener.connections))
      .text("WAITING", nullptr, waiting(listener.waiting) + "/" + waiting(listener.backlog))
      .number(nullptr, "waiting", listener.waiting)
      .number(nullptr, "backlog", listener.backlog)
      .add("UNREAD", "unread_bytes", listener.unread,
           live ? bytesText(unread) : std::to_string(unread))
      .number("STALLED", "stalled", listener.stalled);
}

std::string troubleOf(const Connection& connection) {
  const char state = connection.process.state;
  std::string text = !connection.accepted      ? "waiting"
                     : connection.clientStalls ? "stalled"
                     : connection.serverStalls ? "server-stalls"
                                               : "";
  if (state == 'T' || state == 't' || state == 'Z') {
    text += (text.empty() ? "" : ",") + stateText(state);
  }
  return text.empty() ? "-" : text;
}

}  // namespace

Entry entryOf(const Listener& listener, bool live, bool withPadding) {
  const Process& process = listener.process;
  const bool known = process.known();
  Entry entry;
  entry.name("NAME", listener.name);
  if (live) {
    entry.add("CPU%", "cpu_percent", when(known, process.cpuPercent), rounded(process.cpuPercent))
        .add("MEMORY", "memory_bytes", when(known, process.memory), bytesText(process.memory));
    addLoad(entry, listener, live);
    addProcess(entry, listener);
  } else {
    addProcess(entry, listener);
    addLoad(entry, listener, live);
  }
  entry.text("STATE", "state", when(known, stateText(process.state)));
  if (withPadding) {
    const bool padded = listener.padded;
    entry.add("PADDED", "padded", std::optional(padded), padded ? "yes" : "no");
  }
  return entry;
}

Entry entryOf(const Connection& connection) {
  const Process& process = connection.process;
  const bool known = process.known();
  Entry entry;
  entry.name("SERVER", connection.name)
      .number("PID", "pid", when(known, process.pid))
      .number(nullptr, "uid", std::optional(connection.uid))
      .text("USER", "user", userName(connection.uid))
      .text("PROCESS", "process", when(known, process.name))
      .text(nullptr, "process_state", when(known, stateText(process.state)))
      .add("AGE", "process_age_seconds", when(known, process.ageSeconds),
           ageText(process.ageSeconds))
      .number("TO-SERVER", "unread_by_server_bytes", std::optional(connection.unreadByServer))
      .number("TO-CLIENT", "unread_by_client_bytes", std::optional(connection.unreadByClient))
      .add(nullptr, "accepted", std::optional(connection.accepted), "")
      .add(nullptr, "server_stalls", std::optional(connection.serverStalls), "")
      .add(nullptr, "client_stalls", std::optional(connection.clientStalls), "")
      .text("STATE", nullptr, troubleOf(connection));
  return entry;
}

std::vector<std::string> aligned(const std::vector<Row>& rows) {
  std::vector<std::size_t> widths;
  for (const Row& row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (std::size_t i = 0; i < row.size(); ++i) {
      widths[i] = std::max(widths[i], displayWidth(row[i]));
    }
  }
  std::vector<std::string> lines;
  for (const Row& row : rows) {
    std::string& line = lines.emplace_back();
    for (std::size_t i = 0; i < row.size(); ++i) {
      line += row[i];
      if (i + 1 < row.size()) {
        line.append(widths[i] - displayWidth(row[i]) + 2, ' ');
      }
    }
  }
  return lines;
}

void Listing::add(const Entry& entry) {
  if (wantsJson()) {
    return printJson(entry.object);
  }
  if (rows_.empty() && onTerminal()) {
    rows_.push_back(entry.heading);
  }
  rows_.push_back(entry.row);
}

void Listing::end() const {
  std::string text;
  for (const std::string& line : aligned(rows_)) {
    text += (text.empty() && onTerminal() ? painted(line, "1") : line) + "\n";
  }
  printText(text);
}

}  // namespace tool
