// list: the kernel's table, printed.

#include <algorithm>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tool/Json.h"
#include "tool/Kernel.h"
#include "tool/Output.h"
#include "tool/Report.h"
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

std::vector<Listener> chosen(const ListOptions& options) {
  auto found = listeners(options.all);
  const auto other = [&](const Listener& listener) {
    return common.serverUid && listener.uid != common.serverUid;
  };
  found.erase(std::remove_if(found.begin(), found.end(), other), found.end());
  return found;
}

void printLong(const std::vector<Listener>& found, bool all, Output& output) {
  std::vector<Entry> entries;
  for (const Process& process : Owners().of(inodesOf(found, &Listener::inode))) {
    const Server server{found[entries.size()], process, 0};
    entries.push_back(entryOf(server, output.json(), false, all));
  }
  print(entries, output);
}

void printNames(const std::vector<Listener>& found, bool all, Output& output) {
  for (const Listener& listener : found) {
    if (output.json()) {
      Object object;
      object.name(listener.name);
      output.message(all ? object.add("padded", listener.padded).text() : object.text());
    } else {
      output.line(listener.name.empty() ? "''" : escaped(listener.name));
    }
  }
}

/// Tells of those that are in one set and not in the other.
void tell(const std::set<std::string>& in, const std::set<std::string>& notIn, bool listening,
          Output& output) {
  for (const std::string& name : in) {
    if (notIn.count(name) == 0 && output.json()) {
      output.message(
          Object().add("time", timestamp()).name(name).add("listening", listening).text());
    } else if (notIn.count(name) == 0) {
      output.line((listening ? "+ " : "- ") + cell(name));
    }
  }
}

/// Tells what comes and goes, as long as it is wanted. Names that several have count once.
void watch(const ListOptions& options, Output& output) {
  constexpr double kLookAgain = 0.1;
  Run run(Ending::kIsSuccess);
  std::set<std::string> before;
  const auto look = [&] {
    std::set<std::string> now;
    for (const Listener& listener : chosen(options)) {
      now.insert(listener.name);
    }
    tell(before, now, false, output);
    tell(now, before, true, output);
    before = std::move(now);
    return false;
  };
  run.until(look, 0, kLookAgain);
}

void list(const ListOptions& options) {
  Output output;
  if (options.watch) {
    return watch(options, output);
  }
  const auto found = chosen(options);
  options.longForm ? printLong(found, options.all, output) : printNames(found, options.all, output);
  if (found.empty() && output.terminal()) {
    notice("no server listens; 'tovik serve NAME' starts one.");
  }
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

}  // namespace tool
