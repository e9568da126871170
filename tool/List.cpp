// list, peers, wait: the kernel's table, printed, or looked at again and again.

#include <algorithm>
#include <cstddef>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tool/Json.h"
#include "tool/Kernel.h"
#include "tool/Output.h"
#include "tool/Run.h"
#include "tool/Verb.h"
#include "tool/Views.h"

namespace tool {

namespace {

struct ListOptions {
  bool longForm = false;
  bool all = false;
  bool watch = false;
};

/// Those of the user that is asked for, if any is.
std::vector<Listener> wantedListeners(bool all) {
  auto found = kernelTable(all).listeners;
  const auto other = [](const Listener& listener) {
    return common.serverUid && listener.uid != common.serverUid;
  };
  found.erase(std::remove_if(found.begin(), found.end(), other), found.end());
  return found;
}

void printListening(const std::string& name, bool listening,
                    const std::optional<std::string>& time = {}) {
  const JsonName shown(name);
  printJson(Tovik::object("time", time, "name", shown.text, "name_hex", shown.hex, "listening",
                          listening));
}

/// Tells of those that are in one set and not in the other.
void tell(const std::set<std::string>& in, const std::set<std::string>& notIn, bool listening) {
  for (const std::string& name : in) {
    if (notIn.count(name) != 0) {
      continue;
    }
    wantsJson() ? printListening(name, listening, timestamp())
                : printLine((listening ? "+ " : "- ") + cell(name));
  }
}

/// Tells what comes and goes, as long as it is wanted. Names that several have count once.
void watch(const ListOptions& options) {
  constexpr double kLookAgain = 0.1;
  Run run(Ending::kIsSuccess);
  std::set<std::string> before;
  const auto look = [&] {
    std::set<std::string> now;
    for (const Listener& listener : wantedListeners(options.all)) {
      now.insert(listener.name);
    }
    tell(before, now, false);
    tell(now, before, true);
    before = std::move(now);
    return false;
  };
  run.until(look, 0, kLookAgain);
}

void list(const ListOptions& options) {
  if (options.watch) {
    return watch(options);
  }
  auto found = wantedListeners(options.all);
  if (options.longForm) {
    Owners().find(found, &Listener::inode);
  }
  Listing listing;
  for (const Listener& listener : found) {
    const JsonName name(listener.name);
    if (options.longForm) {
      listing.add(entryOf(listener, false, options.all));
    } else if (wantsJson()) {
      printJson(Tovik::object("name", name.text, "name_hex", name.hex, "padded",
                              when(options.all, listener.padded)));
    } else {
      printLine(listener.name.empty() ? "''" : escaped(listener.name));
    }
  }
  listing.end();
  if (found.empty() && onTerminal()) {
    notice("no server listens; 'tovik serve NAME' starts one.");
  }
}

void peers(const std::vector<std::string>& names) {
  Table table = kernelTable(false);
  if (!table.byNetlink) {
    throw Failure(Exit::kUsage,
                  "the kernel does not answer the netlink query that tells who is "
                  "connected to whom.");
  }
  for (const std::string& name : names) {
    const auto isIt = [&](const Listener& listener) { return listener.name == name; };
    if (std::none_of(table.listeners.begin(), table.listeners.end(), isIt)) {
      throw noServer(name);
    }
  }
  auto& connections = table.connections;
  const auto other = [&](const Connection& connection) {
    return !names.empty() && std::find(names.begin(), names.end(), connection.name) == names.end();
  };
  connections.erase(std::remove_if(connections.begin(), connections.end(), other),
                    connections.end());
  Owners().find(connections, &Connection::client);
  Listing listing;
  std::size_t hidden = 0;
  for (const Connection& connection : connections) {
    hidden += connection.process.known() ? 0 : 1;
    listing.add(entryOf(connection));
  }
  listing.end();
  if (hidden > 0) {
    notice("the processes of " + counted(hidden, "connection") +
           " are hidden from this user; root sees them.");
  }
}

struct WaitOptions {
  std::vector<std::string> names;
  bool gone = false;
};

std::string lateText(const std::vector<std::string>& missing, bool gone) {
  std::string names;
  for (const std::string& name : missing) {
    names += (names.empty() ? "" : ", ") + inQuotes(name);
  }
  const bool one = missing.size() == 1;
  return names +
         (!gone ? " did not listen within "
          : one ? " still listens after "
                : " still listen after ") +
         secondsText(common.timeLimit()) + (gone ? "; end " : "; start ") +
         (one ? "it, or give it" : "them, or give them") + " more with --timeout.";
}

void waitFor(const WaitOptions& options) {
  constexpr double kLookAgain = 0.02;
  Run run(Ending::kIsFailure);
  auto missing = options.names;
  const auto look = [&] {
    std::set<std::string> listening;
    for (const Listener& listener : wantedListeners(false)) {
      listening.insert(listener.name);
    }
    const auto satisfied = [&](const std::string& name) {
      const bool listens = listening.count(name) != 0;
      if (listens != options.gone && wantsJson()) {
        printListening(name, listens);
      }
      return listens != options.gone;
    };
    missing.erase(std::remove_if(missing.begin(), missing.end(), satisfied), missing.end());
    return missing.empty();
  };
  run.within(
      common.timeLimit(), look, [&] { return lateText(missing, options.gone); }, kLookAgain);
}

}  // namespace

void addList(CLI::App& program) {
  auto [verb, options] = addVerb(
      program, "list", "names the servers that listen on this machine",
      "The names come straight from the kernel's table of sockets: there is no registry and no "
      "daemon to ask. One name a line, sorted; unprintable bytes are escaped as in a shell's "
      "$'...'. With --server-uid, only that user's servers. On a terminal, --long has headings.",
      list);
  verb.flag("-l,--long", options.longForm,
            "process, user, connections, clients that wait in the backlog and its size, bytes that "
            "nobody has read yet, connections whose buffer is full, and the process's state")
      .flag("--all", options.all,
            "also sequenced-packet servers whose addresses are not padded to their full length")
      .flag("--watch", options.watch,
            "keep running, and print each server that comes (+) or goes (-)");
}

void addPeers(CLI::App& program) {
  auto [verb, names] = addVerb(
      program, "peers", "shows who is connected to servers",
      "A line for each connection: the client's process, its user and age, the bytes that the "
      "server and the client have not read yet, and what is wrong: 'waiting' is not accepted yet, "
      "'stalled' does not read, so that the server cannot write, 'server-stalls' is the reverse; "
      "and a process that is stopped or a zombie. All of it comes from the kernel: neither side "
      "notices. Without a name, the connections of all servers. Only root sees the processes of "
      "other users.",
      peers);
  verb.argument("[NAME...]", name(names));
}

void addWait(CLI::App& program) {
  auto [verb, options] = addVerb(program, "wait", "waits until each server listens",
                                 "Looks into the kernel's table and does not connect, so the "
                                 "servers notice nothing. The time-out is 5 seconds.",
                                 waitFor);
  verb.argument("NAME...", name(options.names))
      .flag("--gone", options.gone, "wait until none of them listens");
}

}  // namespace tool
