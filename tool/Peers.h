#pragma once

#include <map>
#include <string>
#include <vector>

#include "tool/Kernel.h"
#include "tool/Output.h"

namespace tool {

extern const Row kPeerHeading;

/// A connection's row in the table of peers.
Row peerRow(const Connection& connection, const Process& process);

/// The processes behind the clients' ends, by inode.
std::map<Inode, Process> clientProcesses(const std::vector<Connection>& connections,
                                         Owners& owners);

}  // namespace tool
