#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace tool {

/// A listening sequenced-packet socket in the abstract namespace, as the kernel's table shows it.
struct Listener {
  std::string name;    // without the padding
  bool padded = true;  // to the whole path, as this protocol's servers are
  unsigned long inode = 0;
  std::size_t connections = 0;  // accepted ones
  // Known only if the kernel answers the netlink query:
  std::optional<unsigned> uid;
  std::optional<unsigned> waiting;  // clients that are not accepted yet
  std::optional<unsigned> backlog;  // how many may wait
};

/// All of them, sorted by name; only padded ones unless `all`. By a netlink query, or from
/// /proc/net/unix where that is not allowed (which loses names with line breaks, and cannot tell a
/// trailing '@' from padding).
std::vector<Listener> listeners(bool all);

struct Process {
  int pid = 0;
  std::string name;
};

/// The processes that hold these sockets, as far as this user may look. If several hold one, that
/// with the lowest number.
std::map<unsigned long, Process> owners(const std::set<unsigned long>& inodes);

}  // namespace tool
