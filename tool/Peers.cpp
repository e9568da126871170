// peers: the connections in the kernel's table, printed.

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

#include "tool/Kernel.h"
#include "tool/Output.h"
#include "tool/Report.h"
#include "tool/Verb.h"
#include "tool/Views.h"

namespace tool {

namespace {

void requireListening(const std::vector<std::string>& names, const Table& table) {
  for (const std::string& name : names) {
    const auto isIt = [&](const Listener& listener) { return listener.name == name; };
    if (std::none_of(table.listeners.begin(), table.listeners.end(), isIt)) {
      throw noServer(name);
    }
  }
}

void peers(const std::vector<std::string>& names) {
  Table table = kernelTable(false);
  if (!table.byNetlink) {
    throw Failure(Exit::kUsage,
                  "the kernel does not answer the netlink query that tells who is "
                  "connected to whom.");
  }
  requireListening(names, table);
  auto& connections = table.connections;
  const auto other = [&](const Connection& connection) {
    return !names.empty() && std::find(names.begin(), names.end(), connection.name) == names.end();
  };
  connections.erase(std::remove_if(connections.begin(), connections.end(), other),
                    connections.end());
  Output output;
  std::vector<Entry> entries;
  std::size_t hidden = 0;
  for (const Process& process : Owners().of(inodesOf(connections, &Connection::client))) {
    hidden += process.pid == 0 ? 1 : 0;
    entries.push_back(entryOf(connections[entries.size()], process, output.json()));
  }
  print(entries, output);
  if (hidden > 0) {
    notice("the processes of " + counted(hidden, "connection") +
           " are hidden from this user; root sees them.");
  }
}

}  // namespace

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

}  // namespace tool
