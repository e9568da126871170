// peers: the connections in the kernel's table, printed.

#include "tool/Peers.h"

#include <algorithm>

#include "tool/Report.h"
#include "tool/Verb.h"

namespace tool {

namespace {

std::string stateOf(const Connection& connection, const Process& process) {
  std::string text = !connection.accepted      ? "waiting"
                     : connection.clientStalls ? "stalled"
                     : connection.serverStalls ? "server-stalls"
                                               : "";
  if (process.state == 'T' || process.state == 't' || process.state == 'Z') {
    text += (text.empty() ? "" : ",") + stateText(process.state);
  }
  return text.empty() ? "-" : text;
}

Tovik::Message objectOf(const Connection& connection, const Process& process) {
  Tovik::Message object(rapidjson::kObjectType);
  addNameTo(object, connection.name);
  if (process.pid != 0) {
    addMember(object, "pid", process.pid);
    addString(object, "process", process.name);
    addString(object, "process_state", stateText(process.state));
    addMember(object, "process_age_seconds", process.ageSeconds);
  }
  addMember(object, "uid", connection.uid);
  addString(object, "user", userName(connection.uid));
  addMember(object, "accepted", connection.accepted);
  addMember(object, "unread_by_server_bytes", connection.unreadByServer);
  addMember(object, "unread_by_client_bytes", connection.unreadByClient);
  addMember(object, "server_stalls", connection.serverStalls);
  addMember(object, "client_stalls", connection.clientStalls);
  return object;
}

void requireListening(const std::vector<std::string>& names, const Table& table) {
  for (const std::string& name : names) {
    const auto isIt = [&](const Listener& listener) { return listener.name == name; };
    if (std::none_of(table.listeners.begin(), table.listeners.end(), isIt)) {
      throw Failure(Exit::kNoServer, "no server listens under " + inQuotes(name) +
                                         "; start it, or see the names with 'tovik list'.");
    }
  }
}

void peers(const std::vector<std::string>& names, const Common& common) {
  Table table = kernelTable(false);
  if (!table.byNetlink) {
    throw Failure(Exit::kUsage,
                  "the kernel does not answer the netlink query that tells who is "
                  "connected to whom.");
  }
  requireListening(names, table);
  auto& connections = table.connections;
  const auto others = [&](const Connection& connection) {
    return !names.empty() && std::find(names.begin(), names.end(), connection.name) == names.end();
  };
  connections.erase(std::remove_if(connections.begin(), connections.end(), others),
                    connections.end());
  Owners owners;
  const auto processes = clientProcesses(connections, owners);
  Output output(common);
  std::vector<Row> rows;
  std::size_t hidden = 0;
  for (const Connection& connection : connections) {
    const Process& process = processes.at(connection.client);
    hidden += process.pid == 0 ? 1 : 0;
    if (output.json()) {
      output.message(objectOf(connection, process));
    } else {
      rows.push_back(peerRow(connection, process));
    }
  }
  printTable(kPeerHeading, rows, output);
  if (hidden > 0) {
    notice("the processes of " + counted(hidden, "connection") +
           " are hidden from this user; root sees them.");
  }
}

}  // namespace

const Row kPeerHeading{"SERVER", "PID",       "USER",      "PROCESS",
                       "AGE",    "TO-SERVER", "TO-CLIENT", "STATE"};

Row peerRow(const Connection& connection, const Process& process) {
  const bool known = process.pid != 0;
  return {cell(connection.name),
          known ? std::to_string(process.pid) : "-",
          cell(userName(connection.uid)),
          known ? cell(process.name) : "-",
          known ? ageText(process.ageSeconds) : "-",
          std::to_string(connection.unreadByServer),
          std::to_string(connection.unreadByClient),
          stateOf(connection, process)};
}

std::map<Inode, Process> clientProcesses(const std::vector<Connection>& connections,
                                         Owners& owners) {
  std::set<Inode> inodes;
  for (const Connection& connection : connections) {
    inodes.insert(connection.client);
  }
  owners.find(inodes);
  std::map<int, Process> byPid;
  std::map<Inode, Process> result;
  for (const Inode inode : inodes) {
    const int pid = owners.pidOf(inode);
    if (byPid.count(pid) == 0) {
      byPid[pid] = processOf(pid);
    }
    result[inode] = byPid[pid];
  }
  return result;
}

void addPeers(Program& program) {
  auto [verb, names] = program.verb<std::vector<std::string>>(
      "peers", "shows who is connected to servers",
      "A line for each connection: the client's process, user and age of the process, the bytes "
      "that the server and the client have not read yet, and what is wrong: 'waiting' has not "
      "been accepted; of 'stalled' clients the server can write no more, of 'server-stalls' the "
      "client; and a process that is stopped or a zombie. It comes from the kernel alone: neither "
      "side notices. Without a name, all servers' connections. Processes of others show for root "
      "only.",
      peers);
  verb.arguments(kName, Needed::kNo, name(names));
}

}  // namespace tool
