// The kernel's table of sockets: netlink query -> records -> sockets -> listeners; or the same from
// /proc/net/unix.

#include "tool/Kernel.h"

#include <dirent.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <linux/unix_diag.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string_view>
#include <tuple>
#include <utility>

#include "tool/Report.h"

namespace tool {

namespace {

constexpr std::size_t kPathSize = sizeof(sockaddr_un::sun_path);
constexpr unsigned kEstablished = 1;  // the kernel's numbers for states, shared with TCP
constexpr unsigned kListening = 10;

/// One socket of the table, before it is known what it stands for.
struct Socket {
  std::string path;  // with the leading NUL and the padding
  bool listens = false;
  Inode inode = 0;
  Inode peer = 0;
  std::optional<unsigned> uid;
  std::optional<unix_diag_rqlen> queues;  // bytes, or clients and how many may wait
  std::vector<std::uint32_t> pending;     // inodes of clients that wait for a listener
  bool full = false;                      // nothing more can be written to it
};

// --- the netlink query ---

bool sendQuery(int fd) {
  struct {
    nlmsghdr header;
    unix_diag_req request;
  } query{};
  query.header.nlmsg_len = sizeof query;
  query.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
  query.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  query.request.sdiag_family = AF_UNIX;
  query.request.udiag_states = (1U << kEstablished) | (1U << kListening);
  query.request.udiag_show = UDIAG_SHOW_NAME | UDIAG_SHOW_PEER | UDIAG_SHOW_ICONS |
                             UDIAG_SHOW_RQLEN | UDIAG_SHOW_MEMINFO | UDIAG_SHOW_UID;
  return ::send(fd, &query, sizeof query, 0) == static_cast<ssize_t>(sizeof query);
}

template <class T>
T readAs(std::string_view bytes) {
  T value{};
  std::memcpy(&value, bytes.data(), std::min(bytes.size(), sizeof value));
  return value;
}

/// `type` and payload of the attribute or message at the front of `bytes`, which is then taken off.
/// Header is nlattr or nlmsghdr: length first, padded to 4 bytes.
template <class Header>
std::pair<Header, std::string_view> takeFront(std::string_view& bytes, std::size_t length) {
  const auto header = readAs<Header>(bytes);
  std::string_view payload = bytes.substr(0, std::max(length, sizeof header));
  bytes.remove_prefix(std::min((payload.size() + 3) & ~std::size_t{3}, bytes.size()));
  payload.remove_prefix(std::min(sizeof header, payload.size()));
  return {header, payload};
}

/// As poll() judges: a socket takes more while a quarter of its memory is not in use.
bool isFull(std::string_view memory) {
  const auto values = readAs<std::array<std::uint32_t, SK_MEMINFO_VARS>>(memory);
  return std::uint64_t{values[SK_MEMINFO_WMEM_ALLOC]} * 4 > values[SK_MEMINFO_SNDBUF];
}

void takeAttribute(Socket& socket, unsigned type, std::string_view value) {
  if (type == UNIX_DIAG_NAME) {
    socket.path = value;
  } else if (type == UNIX_DIAG_UID) {
    socket.uid = readAs<unsigned>(value);
  } else if (type == UNIX_DIAG_RQLEN) {
    socket.queues = readAs<unix_diag_rqlen>(value);
  } else if (type == UNIX_DIAG_PEER) {
    socket.peer = readAs<std::uint32_t>(value);
  } else if (type == UNIX_DIAG_MEMINFO) {
    socket.full = isFull(value);
  } else if (type == UNIX_DIAG_ICONS) {
    for (; value.size() >= sizeof(std::uint32_t); value.remove_prefix(sizeof(std::uint32_t))) {
      socket.pending.push_back(readAs<std::uint32_t>(value));
    }
  }
}

std::optional<Socket> socketFrom(std::string_view record) {
  const auto header = readAs<unix_diag_msg>(record);
  if (header.udiag_type != SOCK_SEQPACKET) {
    return std::nullopt;
  }
  Socket socket;
  socket.listens = header.udiag_state == kListening;
  socket.inode = header.udiag_ino;
  for (record.remove_prefix(std::min(sizeof header, record.size())); !record.empty();) {
    const auto [attribute, value] = takeFront<nlattr>(record, readAs<nlattr>(record).nla_len);
    takeAttribute(socket, attribute.nla_type, value);
  }
  return socket;
}

/// False if the kernel does not answer.
bool queryKernel(std::vector<Socket>& sockets) {
  const int fd = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
  if (fd < 0) {
    return false;
  }
  std::string buffer(1 << 16, '\0');
  bool answered = false;
  for (bool more = sendQuery(fd); more;) {
    const auto length = ::recv(fd, buffer.data(), buffer.size(), 0);
    std::string_view rest(buffer.data(), length < 0 ? 0 : static_cast<std::size_t>(length));
    more = !rest.empty();
    while (!rest.empty()) {
      const auto [header, record] = takeFront<nlmsghdr>(rest, readAs<nlmsghdr>(rest).nlmsg_len);
      answered = answered || header.nlmsg_type == NLMSG_DONE;
      if (header.nlmsg_type != SOCK_DIAG_BY_FAMILY) {
        more = false;
        break;
      }
      if (auto socket = socketFrom(record)) {
        sockets.push_back(std::move(*socket));
      }
    }
  }
  ::close(fd);
  return answered;
}

// --- /proc/net/unix ---

/// Num RefCount Protocol Flags Type St Inode Path, where NULs of the path are shown as '@'.
std::optional<Socket> socketFrom(const std::string& line) {
  std::istringstream fields(line);
  std::string skipped;
  unsigned long flags = 0;
  unsigned long type = 0;
  unsigned long state = 0;
  Socket socket;
  fields >> skipped >> skipped >> skipped >> std::hex >> flags >> type >> state >> std::dec >>
      socket.inode;
  if (!fields || fields.get() != ' ' || type != SOCK_SEQPACKET || socket.inode == 0) {
    return std::nullopt;
  }
  std::getline(fields, socket.path);
  if (socket.path.empty() || socket.path.front() != '@') {
    return std::nullopt;
  }
  socket.path.front() = '\0';
  while (socket.path.size() > 1 && socket.path.back() == '@') {
    socket.path.pop_back();
  }
  const bool padded = line.size() - line.find('@') == kPathSize;
  socket.path.resize(padded ? kPathSize : line.size() - line.find('@'), '\0');
  socket.listens = (flags & 0x10000U) != 0;  // the kernel's mark of a socket that accepts
  return socket;
}

std::vector<Socket> readProc() {
  std::vector<Socket> sockets;
  std::ifstream table("/proc/net/unix");
  if (!table) {
    throw Failure(Exit::kUsage,
                  "the kernel's table of sockets cannot be read; allow netlink or mount /proc.");
  }
  for (std::string line; std::getline(table, line);) {
    if (auto socket = socketFrom(line)) {
      sockets.push_back(std::move(*socket));
    }
  }
  return sockets;
}

// --- both ---

/// The name in a path, and whether it is what this protocol's servers would call themselves.
Listener listenerFrom(const Socket& socket) {
  const std::size_t end = socket.path.find('\0', 1);
  const bool nulsToTheEnd = socket.path.find_first_not_of('\0', end) == std::string::npos;
  Listener listener;
  listener.padded = socket.path.size() == kPathSize && end != std::string::npos && nulsToTheEnd;
  listener.name = socket.path.substr(1, listener.padded ? end - 1 : std::string::npos);
  listener.inode = socket.inode;
  listener.uid = socket.uid;
  if (socket.queues) {
    listener.waiting = socket.queues->udiag_rqueue;
    listener.backlog = socket.queues->udiag_wqueue;
    listener.unread = 0;
    listener.stalled = 0;
  }
  return listener;
}

/// Puts the two ends of connections together.
class Builder {
 public:
  Builder(const std::vector<Socket>& sockets, bool all) {
    for (const Socket& socket : sockets) {
      byInode_.emplace(socket.inode, &socket);
      if (!socket.listens && !socket.path.empty()) {
        accepted_[socket.path].push_back(&socket);
      }
    }
    for (const Socket& socket : sockets) {
      if (socket.listens && !socket.path.empty() && socket.path.front() == '\0') {
        add(socket, all);
      }
    }
  }

  Table take() {
    std::sort(table_.listeners.begin(), table_.listeners.end(), [](auto& a, auto& b) {
      return std::tie(a.name, b.padded) < std::tie(b.name, a.padded);
    });
    std::sort(table_.connections.begin(), table_.connections.end(), [](auto& a, auto& b) {
      return std::tie(a.name, a.server, a.client) < std::tie(b.name, b.server, b.client);
    });
    return std::move(table_);
  }

 private:
  void add(const Socket& socket, bool all) {
    Listener listener = listenerFrom(socket);
    if (!all && !listener.padded) {
      return;
    }
    const auto& ends = accepted_[socket.path];
    listener.connections = ends.size();
    for (const Socket* end : ends) {
      connect(listener, end, end->peer);
    }
    for (const std::uint32_t client : socket.pending) {
      connect(listener, nullptr, client);
    }
    table_.listeners.push_back(std::move(listener));
  }

  /// `end` is the server's, null for a client that waits.
  void connect(Listener& listener, const Socket* end, Inode client) {
    const auto found = byInode_.find(client);
    if (client == 0 || found == byInode_.end() || !listener.unread) {
      return;
    }
    const Socket& other = *found->second;
    Connection connection;
    connection.name = listener.name;
    connection.server = listener.inode;
    connection.client = client;
    connection.uid = other.uid.value_or(0);
    connection.accepted = end != nullptr;
    connection.unreadByClient = other.queues ? other.queues->udiag_rqueue : 0;
    connection.serverStalls = other.full;
    if (end != nullptr) {
      connection.unreadByServer = end->queues ? end->queues->udiag_rqueue : 0;
      connection.clientStalls = end->full;
    }
    *listener.unread += connection.unreadByServer + connection.unreadByClient;
    *listener.stalled += connection.serverStalls || connection.clientStalls ? 1 : 0;
    table_.connections.push_back(std::move(connection));
  }

  std::unordered_map<Inode, const Socket*> byInode_;
  std::unordered_map<std::string_view, std::vector<const Socket*>> accepted_;
  Table table_;
};

// --- processes ---

/// The numbers of the processes that can be seen, the lowest first.
std::vector<int> processes() {
  std::vector<int> pids;
  DIR* const proc = ::opendir("/proc");
  while (const dirent* entry = proc == nullptr ? nullptr : ::readdir(proc)) {
    if (const int pid = std::atoi(entry->d_name); pid > 0) {
      pids.push_back(pid);
    }
  }
  if (proc != nullptr) {
    ::closedir(proc);
  }
  std::sort(pids.begin(), pids.end());
  return pids;
}

/// Calls `found` for each socket that the process has open.
void forEachSocketOf(int pid, const std::function<void(Inode)>& found) {
  DIR* const folder = ::opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
  while (const dirent* entry = folder == nullptr ? nullptr : ::readdir(folder)) {
    std::array<char, 64> target{};
    const auto length =
        ::readlinkat(::dirfd(folder), entry->d_name, target.data(), target.size() - 1);
    if (length > 0 && std::strncmp(target.data(), "socket:[", 8) == 0) {
      found(std::strtoul(target.data() + 8, nullptr, 10));
    }
  }
  if (folder != nullptr) {
    ::closedir(folder);
  }
}

double uptime() {
  timespec now{};
  ::clock_gettime(CLOCK_BOOTTIME, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

/// The process as /proc/PID/stat has it: PID (NAME) STATE and numbers, of which the name may hold
/// anything. An unknown one if it is gone or hidden.
Process processOf(int pid) {
  Process process;
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::stringstream text;
  text << file.rdbuf();
  const std::string line = text.str();
  const std::size_t open = line.find('(');
  const std::size_t close = line.rfind(')');
  if (pid == 0 || open == std::string::npos || close == std::string::npos) {
    return process;
  }
  process.pid = pid;
  process.name = line.substr(open + 1, close - open - 1);
  std::istringstream fields(line.substr(close + 1));
  fields >> process.state;
  const auto ticks = static_cast<double>(::sysconf(_SC_CLK_TCK));
  std::uint64_t value = 0;
  for (int field = 4; field <= 24 && fields >> value; ++field) {
    if (field == 14 || field == 15) {
      process.cpuSeconds += static_cast<double>(value) / ticks;
    } else if (field == 22) {
      process.ageSeconds = uptime() - static_cast<double>(value) / ticks;
    } else if (field == 24) {
      process.memory = value * static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
    }
  }
  return process;
}

}  // namespace

Table kernelTable(bool all) {
  std::vector<Socket> sockets;
  const bool byNetlink = queryKernel(sockets);
  if (!byNetlink) {
    sockets = readProc();
  }
  Table table = Builder(sockets, all).take();
  table.byNetlink = byNetlink;
  return table;
}

std::vector<Listener> listeners(bool all) {
  return kernelTable(all).listeners;
}

void Owners::find(const std::vector<Inode>& sockets) {
  bool anyNew = false;
  std::size_t missing = 0;  // those of hidden processes included
  std::unordered_map<Inode, int> found;
  for (const Inode inode : sockets) {
    const auto known = known_.find(inode);
    anyNew = anyNew || known == known_.end();
    found[inode] = known == known_.end() ? 0 : known->second;
    missing += found[inode] == 0 ? 1 : 0;
  }
  known_ = std::move(found);
  for (const int pid : anyNew ? processes() : std::vector<int>{}) {
    forEachSocketOf(pid, [&](Inode inode) {
      const auto known = known_.find(inode);
      if (known != known_.end() && known->second == 0) {
        known->second = pid;
        --missing;
      }
    });
    if (missing == 0) {
      break;
    }
  }
}

std::vector<Process> Owners::of(const std::vector<Inode>& sockets) {
  find(sockets);
  std::map<int, Process> byPid;
  std::vector<Process> owners;
  for (const Inode socket : sockets) {
    const int pid = known_[socket];
    const auto found = byPid.find(pid);
    owners.push_back(found == byPid.end() ? byPid[pid] = processOf(pid) : found->second);
  }
  return owners;
}

std::string userName(unsigned uid) {
  static std::map<unsigned, std::string> names;
  auto& name = names[uid];
  if (name.empty()) {
    const passwd* const user = ::getpwuid(uid);
    name = user == nullptr ? std::to_string(uid) : user->pw_name;
  }
  return name;
}

}  // namespace tool
