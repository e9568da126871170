// list: the kernel's table, printed.

#include <algorithm>
#include <array>

#include "tool/Output.h"
#include "tool/Table.h"
#include "tool/Verbs.h"

namespace tool {

namespace {

using Row = std::vector<std::string>;

template <class T>
std::string orDash(const std::optional<T>& value) {
  return value ? std::to_string(*value) : "-";
}

/// Empty names and blanks inside names must not look like missing columns.
std::string column(const std::string& name) {
  std::string text;
  for (const char byte : escaped(name)) {
    text += byte == ' ' ? std::string("\\x20") : std::string(1, byte);
  }
  return text.empty() ? "''" : text;
}

Row rowOf(const Listener& listener, const Process& process, bool all) {
  Row row{column(listener.name),
          process.pid == 0 ? "-" : std::to_string(process.pid),
          orDash(listener.uid),
          process.pid == 0 ? "-" : column(process.name),
          std::to_string(listener.connections),
          orDash(listener.waiting) + "/" + orDash(listener.backlog)};
  if (all) {
    row.emplace_back(listener.padded ? "yes" : "no");
  }
  return row;
}

void printAligned(const std::vector<Row>& rows, Output& output) {
  std::vector<std::size_t> widths;
  for (const Row& row : rows) {
    widths.resize(row.size());
    for (std::size_t i = 0; i < row.size(); ++i) {
      widths[i] = std::max(widths[i], row[i].size());
    }
  }
  for (const Row& row : rows) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      line += row[i];
      if (i + 1 < row.size()) {
        line.append(widths[i] - row[i].size() + 2, ' ');
      }
    }
    output.line(&row == &rows.front() && output.terminal() ? painted(line, "1", output.colour())
                                                           : line);
  }
}

Tovik::Message objectOf(const Listener& listener, const Process& process, const Options& options) {
  Tovik::Message object;
  object.SetObject();
  addString(object, "name", listener.name);
  if (options.all) {
    addNumber(object, "padded", listener.padded);
  }
  if (!options.longForm) {
    return object;
  }
  if (process.pid != 0) {
    addNumber(object, "pid", process.pid);
    addString(object, "process", process.name);
  }
  if (listener.uid) {
    addNumber(object, "uid", *listener.uid);
  }
  addNumber(object, "connections", static_cast<std::uint64_t>(listener.connections));
  if (listener.waiting && listener.backlog) {
    addNumber(object, "waiting", *listener.waiting);
    addNumber(object, "backlog", *listener.backlog);
  }
  return object;
}

std::vector<Listener> chosen(const Options& options) {
  auto found = listeners(options.all);
  if (options.serverUid) {
    const auto others = std::remove_if(found.begin(), found.end(), [&](const Listener& listener) {
      return listener.uid != options.serverUid;
    });
    found.erase(others, found.end());
  }
  return found;
}

}  // namespace

Exit runList(const Options& options) {
  Output output(options);
  const auto found = chosen(options);
  std::set<unsigned long> inodes;
  for (const Listener& listener : found) {
    inodes.insert(listener.inode);
  }
  auto processes = options.longForm ? owners(inodes) : std::map<unsigned long, Process>{};
  std::vector<Row> rows;
  if (output.terminal() && !found.empty()) {  // a pipe gets data only
    rows.push_back({"NAME", "PID", "UID", "PROCESS", "CONNECTIONS", "WAITING"});
    if (options.all) {
      rows.back().emplace_back("PADDED");
    }
  }
  for (const Listener& listener : found) {
    if (output.json()) {
      output.message(objectOf(listener, processes[listener.inode], options));
    } else if (options.longForm) {
      rows.push_back(rowOf(listener, processes[listener.inode], options.all));
    } else {
      output.line(listener.name.empty() ? "''" : escaped(listener.name));
    }
  }
  if (options.longForm && !output.json()) {
    printAligned(rows, output);
  }
  if (found.empty() && output.terminal()) {
    notice("no server listens; 'tovik serve NAME' starts one.");
  }
  return Exit::kSuccess;
}

}  // namespace tool
