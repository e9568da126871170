#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace tool {

using Inode = unsigned long;

struct Process {
  int pid = 0;  // 0: unknown, or hidden from this user
  std::string name;
  char state = '?';  // R running, S sleeping, T stopped, Z zombie and so on
  double ageSeconds = 0;
  double cpuSeconds = 0;     // used so far
  double cpuPercent = 0;     // over its life
  std::uint64_t memory = 0;  // resident bytes

  bool known() const { return pid != 0; }
};

/// A listening sequenced-packet socket in the abstract namespace, as the kernel's table shows it.
struct Listener {
  std::string name;    // without the padding
  bool padded = true;  // to the whole path, as this protocol's servers are
  Inode inode = 0;
  std::size_t connections = 0;  // accepted ones
  Process process;              // see `Owners`
  // Known only if the kernel answers the netlink query:
  std::optional<unsigned> uid;
  std::optional<unsigned> waiting;      // clients that are not accepted yet
  std::optional<unsigned> backlog;      // how many may wait
  std::optional<std::uint64_t> unread;  // bytes, in both directions of all connections
  std::optional<std::size_t> stalled;   // connections whose buffer is full
};

/// A client's connection to a listener.
struct Connection {
  std::string name;  // the server's
  Inode server = 0;  // the listener
  Inode client = 0;
  Process process;                   // the client's; see `Owners`
  unsigned uid = 0;                  // who made the client's socket
  bool accepted = true;              // else it waits to be let in
  std::uint64_t unreadByServer = 0;  // bytes
  std::uint64_t unreadByClient = 0;  // bytes
  bool serverStalls = false;         // it does not read, and the client cannot write on
  bool clientStalls = false;         // the other way round
};

/// What the kernel's table shows at one moment, sorted by name.
struct Table {
  std::vector<Listener> listeners;
  std::vector<Connection> connections;  // of all of them; none without netlink
  bool byNetlink = true;
};

/// Only padded listeners unless `all`. By a netlink query, or from /proc/net/unix where that is not
/// allowed (which loses names with line breaks, and cannot tell a trailing '@' from padding).
Table kernelTable(bool all);

/// Finds the processes that hold sockets, as far as this user may look. If several hold one, that
/// with the lowest number. It remembers what it has found.
class Owners {
 public:
  /// Names the processes of listeners or connections, by one of the sockets of each. It looks for
  /// what it does not know yet, and forgets all other sockets.
  template <class T>
  void find(std::vector<T>& all, Inode T::*socket) {
    std::vector<std::pair<Inode, Process*>> sockets;
    sockets.reserve(all.size());
    for (T& each : all) {
      sockets.emplace_back(each.*socket, &each.process);
    }
    find(sockets);
  }

 private:
  void find(const std::vector<std::pair<Inode, Process*>>& sockets);

  std::unordered_map<Inode, int> known_;
};

/// The user's name, or the number of one who has none.
std::string userName(unsigned uid);

}  // namespace tool
