// top: look -> rows -> screen, once a second and after each key. One server a line, or the peers of
// one server.

#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>

#include "tool/Peers.h"
#include "tool/Report.h"
#include "tool/Run.h"
#include "tool/Verb.h"

namespace tool {

namespace {

constexpr double kPause = 1;  // seconds

struct TopOptions {
  bool once = false;
};

/// One server as it was at one look.
struct Load {
  Listener listener;
  Process process;
  double cpuPercent = 0;
};

using Clock = std::chrono::steady_clock;

/// Looks at the kernel's table again and again.
class Looks {
 public:
  /// The processor time since the look before, or since the process began.
  std::vector<Load> look() {
    table_ = kernelTable(false);
    std::set<Inode> inodes;
    for (const Listener& listener : table_.listeners) {
      inodes.insert(listener.inode);
    }
    owners_.find(inodes);
    const auto now = Clock::now();
    const double passed = std::chrono::duration<double>(now - lookedAt_).count();
    std::map<int, double> used;
    std::vector<Load> loads;
    for (const Listener& listener : table_.listeners) {
      Load load{listener, processOf(owners_.pidOf(listener.inode)), 0};
      const auto before = used_.find(load.process.pid);
      const bool first = before == used_.end();
      const double seconds = load.process.cpuSeconds - (first ? 0 : before->second);
      load.cpuPercent = 100 * seconds / std::max(first ? load.process.ageSeconds : passed, 0.01);
      used[load.process.pid] = load.process.cpuSeconds;
      loads.push_back(std::move(load));
    }
    used_ = std::move(used);
    lookedAt_ = now;
    return loads;
  }

  std::vector<Row> peersOf(Inode server) {
    auto connections = table_.connections;
    const auto others = [&](const Connection& connection) { return connection.server != server; };
    connections.erase(std::remove_if(connections.begin(), connections.end(), others),
                      connections.end());
    const auto processes = clientProcesses(connections, clients_);
    std::vector<Row> rows;
    rows.reserve(connections.size());
    for (const Connection& connection : connections) {
      rows.push_back(peerRow(connection, processes.at(connection.client)));
    }
    return rows;
  }

 private:
  Table table_;
  Owners owners_;
  Owners clients_;
  std::map<int, double> used_;  // processor time of each process at the look before
  Clock::time_point lookedAt_;
};

struct Column {
  const char* name;
  char key;  // sorts by it
};

constexpr Column kColumns[] = {{"NAME", 'n'},   {"CPU%", 'c'},    {"MEMORY", 'm'}, {"CONNS", 'o'},
                               {"UNREAD", 'u'}, {"STALLED", 's'}, {"WAITING", 'w'}};

/// What a column sorts by, the largest first; names sort as they come.
double weight(const Load& load, char key) {
  switch (key) {
    case 'c':
      return load.cpuPercent;
    case 'm':
      return static_cast<double>(load.process.memory);
    case 'o':
      return static_cast<double>(load.listener.connections);
    case 'u':
      return static_cast<double>(load.listener.unread.value_or(0));
    case 's':
      return static_cast<double>(load.listener.stalled.value_or(0));
    case 'w':
      return load.listener.waiting.value_or(0);
    default:
      return 0;
  }
}

void sortBy(char key, std::vector<Load>& loads) {
  std::stable_sort(loads.begin(), loads.end(),
                   [key](const Load& a, const Load& b) { return weight(a, key) > weight(b, key); });
}

template <class T>
std::string orDash(const std::optional<T>& value) {
  return value ? bytesText(*value) : "-";
}

Row rowOf(const Load& load) {
  const bool known = load.process.pid != 0;
  std::array<char, 32> cpu{};
  std::snprintf(cpu.data(), cpu.size(), "%.1f", load.cpuPercent);
  return {cell(load.listener.name),
          known ? cpu.data() : "-",
          known ? bytesText(load.process.memory) : "-",
          std::to_string(load.listener.connections),
          orDash(load.listener.unread),
          orDash(load.listener.stalled),
          orDash(load.listener.waiting) + "/" + orDash(load.listener.backlog),
          known ? std::to_string(load.process.pid) : "-",
          load.listener.uid ? cell(userName(*load.listener.uid)) : "-",
          known ? stateText(load.process.state) : "-",
          known ? cell(load.process.name) : "-"};
}

const Row kHeading{"NAME",    "CPU%", "MEMORY", "CONNS", "UNREAD", "STALLED",
                   "WAITING", "PID",  "USER",   "STATE", "PROCESS"};

Tovik::Message objectOf(const Load& load) {
  Tovik::Message object(rapidjson::kObjectType);
  addNameTo(object, load.listener.name);
  if (load.process.pid != 0) {
    addMember(object, "pid", load.process.pid);
    addString(object, "process", load.process.name);
    addString(object, "state", stateText(load.process.state));
    addMember(object, "cpu_percent", load.cpuPercent);
    addMember(object, "memory_bytes", load.process.memory);
  }
  addMember(object, "connections", static_cast<std::uint64_t>(load.listener.connections));
  if (load.listener.unread) {
    addMember(object, "unread_bytes", *load.listener.unread);
    addMember(object, "stalled", static_cast<std::uint64_t>(*load.listener.stalled));
    addMember(object, "waiting", *load.listener.waiting);
    addMember(object, "backlog", *load.listener.backlog);
  }
  return object;
}

/// The terminal while it shows screens instead of lines: keys come at once and unseen, and what was
/// there before comes back.
class Screen {
 public:
  Screen() {
    ::tcgetattr(STDIN_FILENO, &before_);
    termios raw = before_;
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    raw.c_cc[VSUSP] = _POSIX_VDISABLE;  // a stopped program would leave the terminal like this
    ::tcsetattr(STDIN_FILENO, TCSANOW, &raw);
    write("\x1b[?1049h\x1b[?25l");
  }
  Screen(const Screen&) = delete;
  Screen& operator=(const Screen&) = delete;
  ~Screen() {
    ::tcsetattr(STDIN_FILENO, TCSANOW, &before_);
    write("\x1b[?25h\x1b[?1049l");
  }

  static std::size_t rows() {
    winsize size{};
    const bool known = ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0;
    return known ? size.ws_row : 24;
  }

  /// In one write, each line over the one before, so that nothing flickers.
  static void show(const std::vector<std::string>& lines) {
    std::string text = "\x1b[H";
    for (const std::string& line : lines) {
      text += (&line == &lines.front() ? "" : "\n") + line + "\x1b[0m\x1b[K";
    }
    write(text + "\x1b[J");
  }

 private:
  static void write(const std::string& text) {
    [[maybe_unused]] const auto written = ::write(STDOUT_FILENO, text.data(), text.size());
  }

  termios before_{};
};

/// Calls a function whenever a descriptor is readable.
class Readable : private Kelvo::Platform::FdEventHandler {
 public:
  Readable(int fd, std::function<void()> ready)
      : ready_(std::move(ready)), control_(Kelvo::Platform::getFdControl(this)) {
    control_->attach(fd);
  }
  ~Readable() override { control_->detach(); }

 private:
  void readFdEvent(int /*fd*/) override { ready_(); }

  const std::function<void()> ready_;
  Kelvo::Ptr<Kelvo::Platform::FdControl> control_;
};

int resizes() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGWINCH);
  sigprocmask(SIG_BLOCK, &set, nullptr);
  return ::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

class Top {
 public:
  explicit Top(const Common& common) : output_(common), resizes_(resizes()) {
    resized_.emplace(resizes_, [this] { redraw(); });
    keys_.emplace(STDIN_FILENO, [this] { readKeys(); });
    lookAgain_.arm(0);
  }
  Top(const Top&) = delete;
  Top& operator=(const Top&) = delete;
  ~Top() { ::close(resizes_); }

  void run() { run_.untilFinished(); }

 private:
  void look() {
    loads_ = looks_.look();
    draw();
    lookAgain_.arm(kPause);
  }

  void redraw() {
    signalfd_siginfo info{};
    [[maybe_unused]] const auto read = ::read(resizes_, &info, sizeof info);
    draw();
  }

  void readKeys() {
    std::array<char, 64> keys{};
    const auto length = ::read(STDIN_FILENO, keys.data(), keys.size());
    if (length <= 0) {
      return run_.finish();
    }
    const std::string_view pressed(keys.data(), static_cast<std::size_t>(length));
    if (pressed == "\x1b[A" || pressed == "\x1bOA") {
      take('k');
    } else if (pressed == "\x1b[B" || pressed == "\x1bOB") {
      take('j');
    } else if (pressed.size() == 1 || pressed.front() != '\x1b') {  // no other escape sequences
      std::for_each(pressed.begin(), pressed.end(), [this](char key) { take(key); });
    }
    draw();
  }

  void take(char key) {
    if (typing_) {
      return type(key);
    }
    if (key == 'q') {
      run_.finish();
    } else if (key == '/') {
      typing_ = true;
      filter_.clear();
    } else if (key == 'j') {
      ++at_;
    } else if (key == 'k' && at_ > 0) {
      --at_;
    } else if (key == '\n' || key == '\r') {
      inside_ = inside_ == 0 ? selected() : 0;
    } else if (key == '\x1b') {
      inside_ = 0;
      filter_.clear();
    } else if (std::any_of(std::begin(kColumns), std::end(kColumns),
                           [key](const Column& column) { return column.key == key; })) {
      sortKey_ = key;
    }
  }

  void type(char key) {
    if (key == '\n' || key == '\r') {
      typing_ = false;
    } else if (key == '\x1b') {
      typing_ = false;
      filter_.clear();
    } else if (key == '\x7f' || key == '\b') {
      filter_.resize(filter_.empty() ? 0 : filter_.size() - 1);
    } else {
      filter_ += key;
    }
  }

  std::vector<Load> shown() const {
    std::vector<Load> loads;
    for (const Load& load : loads_) {
      if (load.listener.name.find(filter_) != std::string::npos) {
        loads.push_back(load);
      }
    }
    sortBy(sortKey_, loads);
    return loads;
  }

  Inode selected() const {
    const auto loads = shown();
    return loads.empty() ? 0 : loads[std::min(at_, loads.size() - 1)].listener.inode;
  }

  void draw() {
    const auto loads = shown();
    std::vector<Row> rows{inside_ == 0 ? heading() : kPeerHeading};
    std::string title = counted(loads.size(), "server");
    for (const Load& load : loads) {
      if (inside_ == 0) {
        rows.push_back(rowOf(load));
      } else if (load.listener.inode == inside_) {
        title = escaped(load.listener.name) + ": " + counted(load.listener.connections, "client");
      }
    }
    if (inside_ != 0) {
      const auto peers = looks_.peersOf(inside_);
      rows.insert(rows.end(), peers.begin(), peers.end());
      for (Row& row : rows) {
        row.erase(row.begin());  // the server, which is in the title
      }
    }
    paint(title, aligned(rows));
  }

  /// A star marks what is sorted by.
  Row heading() const {
    Row row = kHeading;
    for (std::size_t i = 0; i < std::size(kColumns); ++i) {
      row[i] += kColumns[i].key == sortKey_ ? "*" : "";
    }
    return row;
  }

  void paint(const std::string& title, const std::vector<std::string>& table) {
    const std::size_t columns = terminalColumns();
    const std::size_t height = std::max<std::size_t>(Screen::rows(), 4);
    const std::size_t room = height - 3;  // without title, heading and keys
    at_ = std::min(at_, std::max<std::size_t>(table.size(), 2) - 2);
    const std::size_t first = at_ < room ? 1 : at_ - room + 2;
    const std::string filter = typing_ || !filter_.empty() ? "  /" + escaped(filter_) : "";
    const std::string heading = fitting("  " + table.front(), columns);
    std::vector<std::string> lines{fitting("tovik top: " + title + filter, columns),
                                   painted(heading, "1", output_.colour())};
    for (std::size_t i = first; i < table.size() && lines.size() < height - 1; ++i) {
      const bool here = i == at_ + 1;
      const std::string line = fitting((here ? "> " : "  ") + table[i], columns);
      lines.push_back(painted(line, "7", here && output_.colour()));
    }
    lines.push_back(fitting(keysText(columns), columns));
    Screen::show(lines);
  }

  std::string keysText(std::size_t columns) const {
    if (typing_) {
      return "type a part of the name; Enter keeps it, Esc drops it";
    }
    if (inside_ != 0) {
      return "Esc back  j/k move  q quit";
    }
    std::string text = "q quit  / filter  Enter peers  sort:";
    for (const Column& column : kColumns) {
      text += std::string(" ") + column.key;
      text += columns < 100 ? "" : std::string("=") + column.name;
    }
    return text;
  }

  Output output_;
  Run run_{Ending::kIsSuccess};
  const int resizes_;
  Looks looks_;
  std::vector<Load> loads_;
  std::size_t at_ = 0;
  Inode inside_ = 0;  // the server whose peers are shown
  char sortKey_ = 'c';
  bool typing_ = false;
  std::string filter_;
  Screen screen_;
  std::optional<Readable> resized_;
  std::optional<Readable> keys_;
  Alarm lookAgain_{[this] { look(); }};
};

void once(const Common& common) {
  Output output(common);
  auto loads = Looks().look();
  sortBy('c', loads);
  std::vector<Row> rows;
  for (const Load& load : loads) {
    if (output.json()) {
      output.message(objectOf(load));
    } else {
      rows.push_back(rowOf(load));
    }
  }
  printTable(kHeading, rows, output);
}

void top(const TopOptions& options, const Common& common) {
  if (options.once || Output(common).json()) {
    return once(common);
  }
  if (::isatty(STDIN_FILENO) == 0 || ::isatty(STDOUT_FILENO) == 0) {
    throw Failure(Exit::kUsage, "top needs a terminal; --once prints one table, --json objects.");
  }
  Top(common).run();
}

}  // namespace

void addTop(Program& program) {
  auto [verb, options] = program.verb<TopOptions>(
      "top", "shows live what servers do",
      "A line for each server: the processor time and memory of its process, connections, the "
      "bytes that nobody has read yet, connections in which one side cannot write on, clients "
      "waiting of how many that may wait, process, user and state. It looks once a second. Keys "
      "sort, filter (/), show the peers of the selected server (Enter) and quit (q). The kernel "
      "counts bytes, not messages. With --once or --json it prints one table, whose processor time "
      "is the average over the life of the process.",
      top);
  verb.flag("--once", options.once, "print one table and end");
}

}  // namespace tool
