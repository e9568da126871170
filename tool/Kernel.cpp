// The kernel's table of sockets: netlink query -> records -> sockets -> listeners; or the same from
// /proc/net/unix.

#include "tool/Kernel.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <linux/unix_diag.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <string_view>
#include <tuple>
#include <utility>

#include "tool/Report.h"

namespace tool {

namespace {

namespace fs = std::filesystem;

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

/// As poll() judges: a socket takes more while a quarter of its memory is not in use.
bool isFull(const std::array<std::uint32_t, SK_MEMINFO_VARS>& memory) {
  return std::uint64_t{memory[SK_MEMINFO_WMEM_ALLOC]} * 4 > memory[SK_MEMINFO_SNDBUF];
}

void takeAttribute(Socket& socket, const rtattr* attribute) {
  const std::string_view bytes(static_cast<const char*>(RTA_DATA(attribute)),
                               RTA_PAYLOAD(attribute));
  const auto as = [&](auto value) {
    std::memcpy(&value, bytes.data(), std::min(bytes.size(), sizeof value));
    return value;
  };
  switch (attribute->rta_type) {
    case UNIX_DIAG_NAME:
      socket.path = bytes;
      break;
    case UNIX_DIAG_UID:
      socket.uid = as(0U);
      break;
    case UNIX_DIAG_RQLEN:
      socket.queues = as(unix_diag_rqlen{});
      break;
    case UNIX_DIAG_PEER:
      socket.peer = as(0U);
      break;
    case UNIX_DIAG_MEMINFO:
      socket.full = isFull(as(std::array<std::uint32_t, SK_MEMINFO_VARS>{}));
      break;
    case UNIX_DIAG_ICONS:
      socket.pending.resize(bytes.size() / sizeof socket.pending.front());
      std::memcpy(socket.pending.data(), bytes.data(),
                  socket.pending.size() * sizeof socket.pending.front());
      break;
    default:
      break;
  }
}

void takeSocket(std::vector<Socket>& sockets, nlmsghdr* message) {
  const auto* const header = static_cast<const unix_diag_msg*>(NLMSG_DATA(message));
  if (header->udiag_type != SOCK_SEQPACKET) {
    return;
  }
  Socket& socket = sockets.emplace_back();
  socket.listens = header->udiag_state == kListening;
  socket.inode = header->udiag_ino;
  auto left = static_cast<int>(NLMSG_PAYLOAD(message, sizeof *header));
  const auto* attribute = reinterpret_cast<const rtattr*>(header + 1);
  for (; RTA_OK(attribute, left); attribute = RTA_NEXT(attribute, left)) {
    takeAttribute(socket, attribute);
  }
}

/// False if the kernel does not answer.
bool queryKernel(std::vector<Socket>& sockets) {
  const int fd = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
  std::vector<nlmsghdr> buffer((1 << 16) / sizeof(nlmsghdr));
  bool answered = false;
  for (bool more = fd >= 0 && sendQuery(fd); more;) {
    auto left = ::recv(fd, buffer.data(), buffer.size() * sizeof(nlmsghdr), 0);
    more = left > 0;
    for (nlmsghdr* message = buffer.data(); more && NLMSG_OK(message, left);
         message = NLMSG_NEXT(message, left)) {
      more = message->nlmsg_type == SOCK_DIAG_BY_FAMILY;
      answered = message->nlmsg_type == NLMSG_DONE;
      if (more) {
        takeSocket(sockets, message);
      }
    }
  }
  if (fd >= 0) {
    ::close(fd);
  }
  return answered;
}

// --- /proc/net/unix ---

/// Num RefCount Protocol Flags Type St Inode Path, where NULs of the path are shown as '@'.
std::optional<Socket> socketFrom(const std::string& line) {
  unsigned long flags = 0;
  unsigned long type = 0;
  int end = 0;
  Socket socket;
  if (std::sscanf(line.c_str(), "%*s %*s %*s %lx %lx %*s %lu%n", &flags, &type, &socket.inode,
                  &end) != 3 ||
      type != SOCK_SEQPACKET || socket.inode == 0 ||
      line.compare(static_cast<std::size_t>(end), 2, " @") != 0) {
    return std::nullopt;
  }
  socket.path = line.substr(static_cast<std::size_t>(end) + 1);
  const std::size_t padding = socket.path.find_last_not_of('@') + 1;
  std::fill(socket.path.begin() + static_cast<std::ptrdiff_t>(padding), socket.path.end(), '\0');
  socket.path.front() = '\0';
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
Table tableOf(const std::vector<Socket>& sockets, bool all) {
  Table table;
  std::unordered_map<Inode, const Socket*> byInode;
  std::unordered_map<std::string_view, std::vector<const Socket*>> accepted;
  for (const Socket& socket : sockets) {
    byInode.emplace(socket.inode, &socket);
    if (!socket.listens && !socket.path.empty()) {
      accepted[socket.path].push_back(&socket);
    }
  }
  /// `end` is the server's, null for a client that waits.
  const auto connect = [&](Listener& listener, const Socket* end, Inode client) {
    const auto found = byInode.find(client);
    if (client == 0 || found == byInode.end() || !listener.unread) {
      return;
    }
    const Socket& other = *found->second;
    Connection& connection = table.connections.emplace_back();
    connection.name = listener.name;
    connection.server = listener.inode;
    connection.client = client;
    connection.uid = other.uid.value_or(0);
    connection.accepted = end != nullptr;
    connection.unreadByClient = other.queues ? other.queues->udiag_rqueue : 0;
    connection.serverStalls = other.full;
    connection.unreadByServer = end != nullptr && end->queues ? end->queues->udiag_rqueue : 0;
    connection.clientStalls = end != nullptr && end->full;
    *listener.unread += connection.unreadByServer + connection.unreadByClient;
    *listener.stalled += connection.serverStalls || connection.clientStalls ? 1 : 0;
  };
  for (const Socket& socket : sockets) {
    if (!socket.listens || socket.path.empty() || socket.path.front() != '\0') {
      continue;
    }
    Listener listener = listenerFrom(socket);
    if (!all && !listener.padded) {
      continue;
    }
    const auto& ends = accepted[socket.path];
    listener.connections = ends.size();
    for (const Socket* end : ends) {
      connect(listener, end, end->peer);
    }
    for (const std::uint32_t client : socket.pending) {
      connect(listener, nullptr, client);
    }
    table.listeners.push_back(std::move(listener));
  }
  std::sort(table.listeners.begin(), table.listeners.end(), [](auto& a, auto& b) {
    return std::tie(a.name, b.padded) < std::tie(b.name, a.padded);
  });
  std::sort(table.connections.begin(), table.connections.end(), [](auto& a, auto& b) {
    return std::tie(a.name, a.server, a.client) < std::tie(b.name, b.server, b.client);
  });
  return table;
}

// --- processes ---

/// What is in a folder, as far as this user may look and it does not vanish meanwhile.
std::vector<fs::path> contentOf(const fs::path& folder) {
  std::vector<fs::path> content;
  std::error_code error;
  for (fs::directory_iterator at(folder, error), end; !error && at != end; at.increment(error)) {
    content.push_back(at->path());
  }
  return content;
}

/// The numbers of the processes that can be seen, the lowest first.
std::set<int> processes() {
  std::set<int> pids;
  for (const fs::path& each : contentOf("/proc")) {
    pids.insert(std::atoi(each.filename().c_str()));
  }
  pids.erase(0);  // what is no process
  return pids;
}

/// The sockets that the process has open.
std::vector<Inode> socketsOf(int pid) {
  std::vector<Inode> sockets;
  for (const fs::path& each : contentOf("/proc/" + std::to_string(pid) + "/fd")) {
    std::error_code error;
    Inode inode = 0;
    if (std::sscanf(fs::read_symlink(each, error).c_str(), "socket:[%lu]", &inode) == 1) {
      sockets.push_back(inode);
    }
  }
  return sockets;
}

/// The process as /proc/PID/stat has it: PID (NAME) STATE and numbers, of which the name may hold
/// anything. An unknown one if it is gone or hidden.
Process processOf(int pid) {
  Process process;
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  const std::string line(std::istreambuf_iterator<char>(file), {});
  const std::size_t open = line.find('(');
  const std::size_t close = line.rfind(')');
  if (open == std::string::npos || close == std::string::npos) {
    return process;
  }
  process.pid = pid;
  process.name = line.substr(open + 1, close - open - 1);
  std::istringstream fields(line.substr(close + 1));
  fields >> process.state;
  constexpr std::size_t kFirst = 4;  // the field that comes next, as proc(5) counts
  std::vector<double> values(std::istream_iterator<double>(fields), {});
  values.resize(25);
  const auto ticks = static_cast<double>(::sysconf(_SC_CLK_TCK));
  double uptime = 0;
  std::ifstream("/proc/uptime") >> uptime;
  process.cpuSeconds = (values[14 - kFirst] + values[15 - kFirst]) / ticks;
  process.ageSeconds = uptime - values[22 - kFirst] / ticks;
  process.cpuPercent = 100 * process.cpuSeconds / std::max(process.ageSeconds, 0.01);
  process.memory = static_cast<std::uint64_t>(values[24 - kFirst]) *
                   static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
  return process;
}

}  // namespace

Table kernelTable(bool all) {
  std::vector<Socket> sockets;
  const bool byNetlink = queryKernel(sockets);
  if (!byNetlink) {
    sockets = readProc();
  }
  Table table = tableOf(sockets, all);
  table.byNetlink = byNetlink;
  return table;
}

void Owners::find(const std::vector<std::pair<Inode, Process*>>& sockets) {
  bool anyNew = false;
  std::size_t missing = 0;  // those of hidden processes included
  std::unordered_map<Inode, int> found;
  for (const auto& [inode, process] : sockets) {
    const auto known = known_.find(inode);
    anyNew = anyNew || known == known_.end();
    found[inode] = known == known_.end() ? 0 : known->second;
    missing += found[inode] == 0 ? 1 : 0;
  }
  known_ = std::move(found);
  for (const int pid : anyNew ? processes() : std::set<int>()) {
    for (const Inode inode : missing > 0 ? socketsOf(pid) : std::vector<Inode>()) {
      const auto known = known_.find(inode);
      if (known != known_.end() && known->second == 0) {
        known->second = pid;
        --missing;
      }
    }
  }
  std::map<int, Process> byPid{{0, Process()}};
  for (const auto& [inode, process] : sockets) {
    const int pid = known_[inode];
    const auto [known, isNew] = byPid.try_emplace(pid);
    *process = isNew ? known->second = processOf(pid) : known->second;
  }
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
