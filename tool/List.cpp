// list: the kernel's table, printed.

#include <algorithm>
#include <utility>

#include "tool/Kernel.h"
#include "tool/Output.h"
#include "tool/Run.h"
#include "tool/Verb.h"

namespace tool {

namespace {

constexpr double kWatchPause = 0.1;  // seconds

struct ListOptions {
  bool longForm = false;
  bool all = false;
  bool watch = false;
};

template <class T>
std::string orDash(const std::optional<T>& value) {
  return value ? std::to_string(*value) : "-";
}

Row rowOf(const Listener& listener, const Process& process, bool all) {
  const bool known = process.pid != 0;
  Row row{cell(listener.name),
          known ? std::to_string(process.pid) : "-",
          listener.uid ? cell(userName(*listener.uid)) : "-",
          known ? cell(process.name) : "-",
          std::to_string(listener.connections),
          orDash(listener.waiting) + "/" + orDash(listener.backlog),
          orDash(listener.unread),
          orDash(listener.stalled),
          known ? stateText(process.state) : "-"};
  if (all) {
    row.emplace_back(listener.padded ? "yes" : "no");
  }
  return row;
}

Tovik::Message objectOf(const Listener& listener, const Process& process,
                        const ListOptions& options) {
  Tovik::Message object(rapidjson::kObjectType);
  addNameTo(object, listener.name);
  if (options.all) {
    addMember(object, "padded", listener.padded);
  }
  if (!options.longForm) {
    return object;
  }
  if (process.pid != 0) {
    addMember(object, "pid", process.pid);
    addString(object, "process", process.name);
    addString(object, "state", stateText(process.state));
  }
  if (listener.uid) {
    addMember(object, "uid", *listener.uid);
    addString(object, "user", userName(*listener.uid));
  }
  addMember(object, "connections", static_cast<std::uint64_t>(listener.connections));
  if (listener.unread) {
    addMember(object, "waiting", *listener.waiting);
    addMember(object, "backlog", *listener.backlog);
    addMember(object, "unread_bytes", *listener.unread);
    addMember(object, "stalled", static_cast<std::uint64_t>(*listener.stalled));
  }
  return object;
}

std::vector<Listener> chosen(const ListOptions& options, const Common& common) {
  auto found = listeners(options.all);
  if (common.serverUid) {
    const auto others = std::remove_if(found.begin(), found.end(), [&](const Listener& listener) {
      return listener.uid != common.serverUid;
    });
    found.erase(others, found.end());
  }
  return found;
}

void list(const ListOptions& options, const Common& common) {
  Output output(common);
  const auto found = chosen(options, common);
  Owners owners;
  if (options.longForm) {
    std::set<Inode> inodes;
    for (const Listener& listener : found) {
      inodes.insert(listener.inode);
    }
    owners.find(inodes);
  }
  std::vector<Row> rows;
  for (const Listener& listener : found) {
    const Process process = processOf(owners.pidOf(listener.inode));
    if (output.json()) {
      output.message(objectOf(listener, process, options));
    } else if (options.longForm) {
      rows.push_back(rowOf(listener, process, options.all));
    } else {
      output.line(listener.name.empty() ? "''" : escaped(listener.name));
    }
  }
  Row heading{"NAME",    "PID",    "USER",    "PROCESS", "CONNECTIONS",
              "WAITING", "UNREAD", "STALLED", "STATE"};
  if (options.all) {
    heading.emplace_back("PADDED");
  }
  printTable(heading, rows, output);
  if (found.empty() && output.terminal()) {
    notice("no server listens; 'tovik serve NAME' starts one.");
  }
}

/// Tells what comes and goes, as long as it is wanted. Names that several have count once.
class Watch {
 public:
  Watch(const ListOptions& options, const Common& common)
      : options_(options), common_(common), output_(common) {
    look_.arm(0);
  }

  void run() { run_.untilFinished(); }

 private:
  void look() {
    std::set<std::string> now;
    for (const Listener& listener : chosen(options_, common_)) {
      now.insert(listener.name);
    }
    tell(before_, now, false);
    tell(now, before_, true);
    before_ = std::move(now);
    look_.arm(kWatchPause);
  }

  /// Those that are in one set and not in the other.
  void tell(const std::set<std::string>& in, const std::set<std::string>& notIn, bool listening) {
    for (const std::string& name : in) {
      if (notIn.count(name) > 0) {
        continue;
      }
      if (!output_.json()) {
        output_.line((listening ? "+ " : "- ") + cell(name));
        continue;
      }
      Tovik::Message change(rapidjson::kObjectType);
      addString(change, "time", timestamp());
      addNameTo(change, name);
      addMember(change, "listening", listening);
      output_.message(change);
    }
  }

  const ListOptions& options_;
  const Common& common_;
  Output output_;
  Run run_{Ending::kIsSuccess};
  std::set<std::string> before_;
  Alarm look_{[this] { look(); }};
};

}  // namespace

void addList(Program& program) {
  const auto run = [](const ListOptions& options, const Common& common) {
    options.watch ? Watch(options, common).run() : list(options, common);
  };
  auto [verb, options] = program.verb<ListOptions>(
      "list", "names the servers that listen on this machine",
      "The names come straight from the kernel's table of sockets: there is no registry and no "
      "daemon to ask. One name a line, sorted; bytes that do not print are shown in the notation "
      "of a shell's $'...'. With --server-uid, only that user's servers. On a terminal, --long has "
      "headings.",
      run);
  verb.flag("-l,--long", options.longForm,
            "process, user, connections, clients waiting of how many that may wait, bytes that "
            "nobody has read yet, connections in which one side cannot write on, and the process's "
            "state")
      .flag("--all", options.all,
            "also sequenced-packet servers whose names are not padded to the whole path")
      .flag("--watch", options.watch, "go on, and tell of each server that comes (+) or goes (-)");
}

}  // namespace tool
