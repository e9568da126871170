// The kernel's table of sockets: netlink query -> records -> sockets -> listeners; or the same from
// /proc/net/unix.

#include "tool/Table.h"

#include <dirent.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <linux/unix_diag.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string_view>
#include <tuple>

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
  Listener listener;
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
  query.request.udiag_show = UDIAG_SHOW_NAME | UDIAG_SHOW_RQLEN | UDIAG_SHOW_UID;
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

Socket socketFrom(std::string_view record) {
  const auto header = readAs<unix_diag_msg>(record);
  Socket socket;
  socket.listens = header.udiag_state == kListening;
  socket.listener.inode = header.udiag_ino;
  if (header.udiag_type != SOCK_SEQPACKET) {
    return socket;
  }
  for (record.remove_prefix(std::min(sizeof header, record.size())); !record.empty();) {
    const auto [attribute, value] = takeFront<nlattr>(record, readAs<nlattr>(record).nla_len);
    if (attribute.nla_type == UNIX_DIAG_NAME) {
      socket.path = value;
    } else if (attribute.nla_type == UNIX_DIAG_UID) {
      socket.listener.uid = readAs<unsigned>(value);
    } else if (attribute.nla_type == UNIX_DIAG_RQLEN) {
      socket.listener.waiting = readAs<unix_diag_rqlen>(value).udiag_rqueue;
      socket.listener.backlog = readAs<unix_diag_rqlen>(value).udiag_wqueue;
    }
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
      sockets.push_back(socketFrom(record));
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
      socket.listener.inode;
  if (!fields || fields.get() != ' ' || type != SOCK_SEQPACKET || socket.listener.inode == 0) {
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
void setName(Socket& socket) {
  const std::size_t end = socket.path.find('\0', 1);
  const bool nulsToTheEnd = socket.path.find_first_not_of('\0', end) == std::string::npos;
  socket.listener.padded =
      socket.path.size() == kPathSize && end != std::string::npos && nulsToTheEnd;
  socket.listener.name =
      socket.path.substr(1, socket.listener.padded ? end - 1 : std::string::npos);
}

/// The numbers of the processes that can be seen.
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

/// The inodes of the sockets that a process holds.
std::set<unsigned long> socketsOf(int pid) {
  std::set<unsigned long> inodes;
  const std::string folder = "/proc/" + std::to_string(pid) + "/fd";
  DIR* const fds = ::opendir(folder.c_str());
  while (const dirent* entry = fds == nullptr ? nullptr : ::readdir(fds)) {
    std::array<char, 64> target{};
    const auto length =
        ::readlink((folder + "/" + entry->d_name).c_str(), target.data(), target.size() - 1);
    if (length > 0 && std::strncmp(target.data(), "socket:[", 8) == 0) {
      inodes.insert(std::strtoul(target.data() + 8, nullptr, 10));
    }
  }
  if (fds != nullptr) {
    ::closedir(fds);
  }
  return inodes;
}

}  // namespace

std::vector<Listener> listeners(bool all) {
  std::vector<Socket> sockets;
  if (!queryKernel(sockets)) {
    sockets = readProc();
  }
  std::map<std::string, std::size_t> connections;
  for (const Socket& socket : sockets) {
    if (!socket.listens) {
      ++connections[socket.path];
    }
  }
  std::vector<Listener> found;
  for (Socket& socket : sockets) {
    if (!socket.listens || socket.path.empty() || socket.path.front() != '\0') {
      continue;
    }
    setName(socket);
    socket.listener.connections = connections[socket.path];
    if (all || socket.listener.padded) {
      found.push_back(std::move(socket.listener));
    }
  }
  std::sort(found.begin(), found.end(), [](const Listener& a, const Listener& b) {
    return std::tie(a.name, b.padded) < std::tie(b.name, a.padded);
  });
  return found;
}

std::map<unsigned long, Process> owners(const std::set<unsigned long>& inodes) {
  std::map<unsigned long, Process> found;
  for (const int pid : processes()) {
    for (const unsigned long inode : socketsOf(pid)) {
      if (inodes.count(inode) == 0 || found.count(inode) > 0) {
        continue;
      }
      std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
      std::getline(comm, found[inode].name);
      found[inode].pid = pid;
    }
  }
  return found;
}

}  // namespace tool
