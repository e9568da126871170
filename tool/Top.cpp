// top: look -> rows -> screen, once a second and after each key. One server a line, or the peers of
// one server.

#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <iterator>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tool/Kernel.h"
#include "tool/Output.h"
#include "tool/Report.h"
#include "tool/Run.h"
#include "tool/Verb.h"
#include "tool/Views.h"

namespace tool {

namespace {

constexpr double kPause = 1;  // seconds

struct TopOptions {
  bool once = false;
};

using Clock = std::chrono::steady_clock;

/// Looks at the kernel's table again and again.
class Looks {
 public:
  /// The processor time is that since the look before, if there was one.
  const std::vector<Listener>& look() {
    table_ = kernelTable(false);
    owners_.find(table_.listeners, &Listener::inode);
    const auto now = Clock::now();
    const double passed = std::chrono::duration<double>(now - lookedAt_).count();
    std::map<int, double> used;
    for (Listener& listener : table_.listeners) {
      Process& process = listener.process;
      used[process.pid] = process.cpuSeconds;
      if (const auto before = used_.find(process.pid); before != used_.end()) {
        process.cpuPercent = 100 * (process.cpuSeconds - before->second) / std::max(passed, 0.01);
      }
    }
    used_ = std::move(used);
    lookedAt_ = now;
    return table_.listeners;
  }

  std::string nameOf(Inode server) const {
    for (const Listener& listener : table_.listeners) {
      if (listener.inode == server) {
        return escaped(listener.name);
      }
    }
    return "gone";
  }

  std::vector<Connection> peersOf(Inode server) {
    std::vector<Connection> connections;
    std::copy_if(table_.connections.begin(), table_.connections.end(),
                 std::back_inserter(connections),
                 [&](const Connection& connection) { return connection.server == server; });
    clients_.find(connections, &Connection::client);
    return connections;
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
  char key;                                  // sorts by it
  double (*weight)(const Listener& server);  // the largest first; names sort as they come
};

constexpr Column kColumns[] = {
    {"CPU%", 'c', [](const Listener& server) { return server.process.cpuPercent; }},
    {"NAME", 'n', [](const Listener&) { return 0.0; }},
    {"MEMORY", 'm', [](const Listener& server) { return double(server.process.memory); }},
    {"CONNS", 'o', [](const Listener& server) { return double(server.connections); }},
    {"WAITING", 'w', [](const Listener& server) { return double(server.waiting.value_or(0)); }},
    {"UNREAD", 'u', [](const Listener& server) { return double(server.unread.value_or(0)); }},
    {"STALLED", 's', [](const Listener& server) { return double(server.stalled.value_or(0)); }}};

void sortBy(const Column& column, std::vector<Listener>& servers) {
  std::stable_sort(servers.begin(), servers.end(), [&](const Listener& a, const Listener& b) {
    return column.weight(a) > column.weight(b);
  });
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

int resizes() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGWINCH);
  sigprocmask(SIG_BLOCK, &set, nullptr);
  return ::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

class Top {
 public:
  Top() { look_.arm(0); }
  Top(const Top&) = delete;
  Top& operator=(const Top&) = delete;
  ~Top() {
    resized_.detach();
    ::close(resizes_);
  }

  void run() {
    run_.until([this] { return done_; });
  }

 private:
  void look() {
    servers_ = looks_.look();
    draw();
    look_.arm(kPause);
  }

  void redraw() {
    signalfd_siginfo info{};
    [[maybe_unused]] const auto read = ::read(resizes_, &info, sizeof info);
    draw();
  }

  void readKeys() {
    std::array<char, 64> keys{};
    const auto length = ::read(STDIN_FILENO, keys.data(), keys.size());
    done_ = done_ || length <= 0;
    const std::string_view pressed(keys.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
    if (pressed == "\x1b[A" || pressed == "\x1bOA") {
      take('k');
    } else if (pressed == "\x1b[B" || pressed == "\x1bOB") {
      take('j');
    } else if (pressed.size() == 1 || pressed.substr(0, 1) != "\x1b") {  // no other sequences
      std::for_each(pressed.begin(), pressed.end(), [this](char key) { take(key); });
    }
    draw();
  }

  void take(char key) {
    const bool enter = key == '\n' || key == '\r';
    if (key == '\x1b') {
      typing_ = false;
      inside_ = 0;
      filter_.clear();
    } else if (typing_) {
      type(key, enter);
    } else if (enter) {
      inside_ = inside_ == 0 ? selected() : 0;
    } else if (key == '/') {
      typing_ = true;
      filter_.clear();
    } else if (key == 'j') {
      ++at_;
    } else if (key == 'k') {
      at_ -= at_ > 0 ? 1 : 0;
    } else if (key == 'q') {
      done_ = true;
    }
    for (const Column& column : kColumns) {
      sort_ = !typing_ && column.key == key ? &column : sort_;
    }
  }

  void type(char key, bool enter) {
    if (enter) {
      typing_ = false;
    } else if (key == '\x7f' || key == '\b') {
      filter_.resize(filter_.empty() ? 0 : filter_.size() - 1);
    } else {
      filter_ += key;
    }
  }

  std::vector<Listener> shown() const {
    std::vector<Listener> servers;
    std::copy_if(
        servers_.begin(), servers_.end(), std::back_inserter(servers),
        [this](const Listener& server) { return server.name.find(filter_) != std::string::npos; });
    sortBy(*sort_, servers);
    return servers;
  }

  Inode selected() const {
    const auto servers = shown();
    return servers.empty() ? 0 : servers[std::min(at_, servers.size() - 1)].inode;
  }

  void draw() {
    std::vector<Row> rows{heading()};
    if (inside_ != 0) {
      for (const Connection& connection : looks_.peersOf(inside_)) {
        rows.push_back(entryOf(connection).row);
      }
    } else {
      for (const Listener& server : shown()) {
        rows.push_back(entryOf(server, true).row);
      }
    }
    const std::string title =
        inside_ == 0 ? counted(rows.size() - 1, "server")
                     : looks_.nameOf(inside_) + ": " + counted(rows.size() - 1, "client");
    for (Row& row : rows) {
      row.erase(row.begin(), row.begin() + (inside_ != 0 ? 1 : 0));  // the title has the server
    }
    paint(title, aligned(rows));
  }

  /// A star marks what is sorted by.
  Row heading() const {
    if (inside_ != 0) {
      return entryOf(Connection()).heading;
    }
    Row row = entryOf(Listener(), true).heading;
    for (std::string& name : row) {
      name += name == sort_->name ? "*" : "";
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
                                   painted(heading, "1")};
    for (std::size_t i = first; i < table.size() && lines.size() < height - 1; ++i) {
      const bool here = i == at_ + 1;
      const std::string line = fitting((here ? "> " : "  ") + table[i], columns);
      lines.push_back(here ? painted(line, "7") : line);
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

  Run run_{Ending::kIsSuccess};
  Looks looks_;
  std::vector<Listener> servers_;
  std::size_t at_ = 0;
  Inode inside_ = 0;  // the server whose peers are shown
  const Column* sort_ = &kColumns[0];
  bool typing_ = false;
  bool done_ = false;
  std::string filter_;
  Screen screen_;
  const int resizes_ = resizes();
  Watch resized_{resizes_, [this] { redraw(); }};
  Watch keys_{STDIN_FILENO, [this] { readKeys(); }};
  Alarm look_{[this] { look(); }};
};

void top(const TopOptions& options) {
  if (options.once || wantsJson()) {
    auto servers = Looks().look();
    sortBy(kColumns[0], servers);
    Listing listing;
    for (const Listener& server : servers) {
      listing.add(entryOf(server, true));
    }
    return listing.end();
  }
  if (::isatty(STDIN_FILENO) == 0 || ::isatty(STDOUT_FILENO) == 0) {
    throw Failure(Exit::kUsage, "top needs a terminal; --once prints one table, --json objects.");
  }
  Top().run();
}

}  // namespace

void addTop(CLI::App& program) {
  auto [verb, options] = addVerb(
      program, "top", "shows live what servers do",
      "A line for each server: the processor time and memory of its process, connections, the "
      "bytes that nobody has read yet, connections whose buffer is full, clients that wait in the "
      "backlog and its size, process, user and state. It looks once a second. Keys sort, filter "
      "(/), show the peers of the selected server (Enter) and quit (q). The kernel counts bytes, "
      "not messages. With --once or --json it prints one table, whose processor time is the "
      "average over the life of the process.",
      top);
  verb.flag("--once", options.once, "print one table and end");
}

}  // namespace tool
