// Random operations on the event loop, at the top and inside its callbacks, held against a model
// that knows nothing of epoll: files with readers and writers, numbers that refer to them, and who
// watches what. Before each turn the model notes which events are there; each callback must be one
// of them, and at the end of an undisturbed turn none may be left out. Time is virtual, so that
// timers and pauses are exact.

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <map>
#include <memory>
#include <set>
#include <utility>

#include "Kelvo/Exception.h"
#include "Kelvo/Platform/EventLoop.h"
#include "fuzz/Support.h"
#include "tests/model/VirtualClock.h"

using namespace fuzz;
using namespace std::chrono_literals;
using Kelvo::Platform::EventLoop;

namespace {

constexpr unsigned kHandlers = 6;
constexpr std::size_t kMostFiles = 8;
constexpr std::size_t kDeepestTurn = 3;

struct Thrown {};

// --- the model's parts ---

/// One end of a socket pair; the other end decides what this one has to read.
struct File {
  Fd far;
  int pending = 0;
  int references = 0;  // descriptors of this end
};

using Registration = unsigned;  // never the same twice

struct Pause {
  enum class State : std::uint8_t { kNone, kPaused, kPerhaps };
  State state = State::kNone;
  std::chrono::nanoseconds until{0};
  std::chrono::milliseconds length{0};
};

struct TimerState {
  bool pending = false;
  std::chrono::nanoseconds deadline{0};
  unsigned order = 0;
  std::chrono::nanoseconds earliest{0};  // a millisecond after its last expiry
};

struct Attachment {
  int fd = -1;
  Registration registration = 0;
  bool interest = false;
  unsigned interestChanged = 0;  // in which turn
  Pause readPause, writePause;
  bool overridden = false;  // closed first, and the number has gone to another handler since
};

struct HandlerState : Attachment {
  bool closedFirst = false;  // its descriptor was closed while it was attached
  std::array<TimerState, 2> timers;
};

struct Turn {
  struct Ready {
    bool read = false, readForCertain = false;
    bool write = false, writeForCertain = false;
    bool wasRead = false, wasWritten = false;
  };
  unsigned number = 0;
  std::map<Registration, Ready> ready;
  std::set<unsigned> timersDue;  // their orders
  std::set<const Pause*> pausesDue;
  unsigned firstNewOrder = 0;
  bool called = false;
  bool timedOut = false;
  bool disturbed = false;  // overtaken by another turn, or left by an exception
  // A handler with a withheld timer was detached. That timer comes next turn, and what was due
  // after it may have to wait with it.
  bool letGo = false;
};

class World {
 public:
  ~World() {
    handlers_ = {};
    for (const auto& [fd, file] : table_) {
      ::close(fd);
    }
  }

  void run(std::string_view input) {
    for (decisions_ = Decisions(input); decisions_.any();) {
      operation();
    }
    turn();
  }

 private:
  /// A real handler, which hands everything on to the world by its place.
  class Handler final : public Kelvo::Platform::FdEventHandler {
   public:
    Handler(World& world, unsigned place)
        : control(Kelvo::Platform::getFdControl(this)),
          plain(*this, nullptr),
          guarded(*this, this),
          world_(world),
          place_(place) {}

    void readFdEvent(int fd) override { world_.onRead(place_, fd); }
    void writeFdEvent(int fd) override { world_.onWrite(place_, fd); }
    bool handleFdException(int /*fd*/) override { return world_.onException(); }
    using FdEventHandler::deferReadEvent;
    using FdEventHandler::deferWriteEvent;

    class Alarm final : public Kelvo::Platform::TimeoutHandler {
     public:
      Alarm(Handler& of, const Handler* unlessAttached)
          : timer(Kelvo::Platform::getTimer(this, unlessAttached)), of_(of) {}
      void timeout() override { of_.world_.onTimeout(of_.place_, this == &of_.guarded); }
      bool handleTimeoutException() override { return of_.world_.onException(); }
      const Kelvo::Ptr<Kelvo::Platform::Timer> timer;

     private:
      Handler& of_;
    };

    const Kelvo::Ptr<Kelvo::Platform::FdControl> control;
    Alarm plain, guarded;

   private:
    World& world_;
    const unsigned place_;
  };

  // --- operations ---

  void operation() {
    const unsigned place = decisions_.below(kHandlers);
    HandlerState& state = states_[place];
    if (handlers_[place] == nullptr) {
      handlers_[place] = std::make_unique<Handler>(*this, place);
      state = HandlerState{};
    }
    switch (decisions_.below(16)) {
      case 0:
        return open();
      case 1:
      case 2:
        return attach(place);
      case 3:
        return detach(place);
      case 4:
        return setInterest(place, true);
      case 5:
        return setInterest(place, false);
      case 6:
        return arm(place, decisions_.below(2) == 1);
      case 7:
        return disarm(place, decisions_.below(2) == 1);
      case 8:
        return destroy(place);
      case 9:
        return peerSends();
      case 10:
        return drain();
      case 11:
        return peerCloses();
      case 12:
        return closeDescriptor(place);
      case 13:
        return duplicate();
      case 14:
        return VirtualClock::advance(1ms * decisions_.below(128));
      case 15:
        return turns_.empty() && decisions_.below(8) == 0 ? runStopped() : turn();
    }
  }

  void open() {
    if (files_.size() >= kMostFiles) {
      return;
    }
    auto pair = rawPair();
    files_.push_back(std::make_unique<File>());
    files_.back()->far = std::move(pair.second);
    files_.back()->references = 1;
    table_[pair.first.release()] = files_.back().get();
  }

  /// Some open descriptor, or -1.
  int someDescriptor() {
    if (table_.empty()) {
      return -1;
    }
    return std::next(table_.begin(), decisions_.below(static_cast<unsigned>(table_.size())))->first;
  }

  void attach(unsigned place) {
    const int fd = someDescriptor();
    modelDetach(place);
    const bool possible = fd >= 0 && watched_.count({table_[fd], fd}) == 0;
    try {
      handlers_[place]->control->attach(fd);
      require(possible, "attached what cannot be attached");
    } catch (const Kelvo::Exception& error) {
      require(!possible, std::string("attach: ") + error.what());
    }
    table_.erase(-1);
    HandlerState& state = states_[place];
    if (possible) {
      for (HandlerState& other : states_) {
        other.overridden = other.overridden || other.fd == fd;
      }
      state.fd = fd;
      state.registration = ++lastRegistration_;
      watched_[{table_[fd], fd}] = state.registration;
    }
    require(handlers_[place]->control->fd() == state.fd, "the attached descriptor");
  }

  void detach(unsigned place) {
    handlers_[place]->control->detach();
    modelDetach(place);
    require(handlers_[place]->control->fd() == -1, "still attached");
  }

  void modelDetach(unsigned place) {
    HandlerState& state = states_[place];
    if (state.fd < 0) {
      return;
    }
    const auto file = table_.find(state.fd);
    if (!state.overridden && file != table_.end()) {
      watched_.erase({file->second, state.fd});
    }
    for (Turn* turn : turns_) {
      const TimerState& guarded = state.timers[1];
      turn->letGo |= guarded.pending && guarded.deadline <= VirtualClock::now();
    }
    static_cast<Attachment&>(state) = {};
  }

  /// Not for one whose descriptor was closed first: the number is not its own any more.
  void setInterest(unsigned place, bool on) {
    HandlerState& state = states_[place];
    if (state.closedFirst) {
      return;
    }
    handlers_[place]->control->setWriteInterest(on);
    if (state.fd >= 0 && state.interest != on) {
      state.interest = on;
      state.interestChanged = lastTurn_;
      state.writePause = {};
    }
  }

  void arm(unsigned place, bool guarded) {
    constexpr double kDelays[] = {0, 0, -1, 0.001, 0.005, 0.0005, 1e10, 0.1};
    const double delay = kDelays[decisions_.below(8)];
    HandlerState& state = states_[place];
    if (guarded && state.closedFirst) {
      return;  // whether such a handler counts as attached is its owner's mistake
    }
    alarm(place, guarded).timer->arm(delay);
    const std::chrono::duration<double> seconds(std::clamp(delay, 0.0, 4e9));
    TimerState& timer = state.timers[guarded ? 1 : 0];
    timer.pending = true;
    timer.deadline = std::max(
        VirtualClock::now() + std::chrono::ceil<std::chrono::nanoseconds>(seconds), timer.earliest);
    timer.order = ++lastOrder_;
  }

  void disarm(unsigned place, bool guarded) {
    alarm(place, guarded).timer->disarm();
    states_[place].timers[guarded ? 1 : 0].pending = false;
  }

  Handler::Alarm& alarm(unsigned place, bool guarded) {
    return guarded ? handlers_[place]->guarded : handlers_[place]->plain;
  }

  void destroy(unsigned place) {
    handlers_[place].reset();
    modelDetach(place);
    states_[place] = HandlerState{};
    for (Callback* callback : callbacks_) {
      callback->died = callback->died || callback->place == place;
    }
  }

  void peerSends() {
    if (File* file = someFile(); file != nullptr && file->far.get() >= 0 && file->pending < 20) {
      require(sendRecord(file->far.get(), "x") == 0, "the peer cannot send");
      ++file->pending;
    }
  }

  File* someFile() {
    return files_.empty() ? nullptr
                          : files_[decisions_.below(static_cast<unsigned>(files_.size()))].get();
  }

  void drain() {
    const int fd = someDescriptor();
    if (fd >= 0 && table_[fd]->pending > 0) {
      require(rawReceiveNow(fd) == "x", "a record");
      --table_[fd]->pending;
    }
  }

  void peerCloses() {
    if (File* file = someFile()) {
      file->far.reset();
    }
  }

  /// In the right order, or, sometimes, before its handler is detached.
  void closeDescriptor(unsigned place) {
    const int fd = someDescriptor();
    if (fd < 0) {
      return;
    }
    for (unsigned other = 0; other < kHandlers; ++other) {
      if (states_[other].fd != fd || handlers_[other] == nullptr) {
        continue;
      }
      const bool rude = place == other && !states_[other].timers[1].pending &&
                        !states_[other].interest && !states_[other].overridden &&
                        !mayBePaused(other);
      if (rude) {
        states_[other].closedFirst = true;
      } else {
        detach(other);
      }
    }
    ::close(fd);
    forgetDescriptor(fd);
  }

  /// The kernel refuses to pause what is closed, or to end its pause.
  bool mayBePaused(unsigned place) const {
    const HandlerState& state = states_[place];
    return state.readPause.state != Pause::State::kNone ||
           state.writePause.state != Pause::State::kNone ||
           std::any_of(callbacks_.begin(), callbacks_.end(), [place](const Callback* running) {
             return running->place == place && running->deferred;
           });
  }

  void forgetDescriptor(int fd) {
    File* const file = table_[fd];
    table_.erase(fd);
    if (--file->references > 0) {
      return;
    }
    for (auto at = watched_.begin(); at != watched_.end();) {
      at = at->first.first == file ? watched_.erase(at) : std::next(at);
    }
    files_.erase(std::find_if(files_.begin(), files_.end(),
                              [file](const auto& owned) { return owned.get() == file; }));
  }

  void duplicate() {
    const int fd = someDescriptor();
    if (fd >= 0 && table_.size() < 2 * kMostFiles) {
      File* const file = table_[fd];
      ++file->references;
      table_[::dup(fd)] = file;
    }
  }

  /// A stop that was asked for while nothing ran.
  static void runStopped() {
    EventLoop::current().stop();
    EventLoop::current().run();
  }

  // --- turns ---

  void turn() {
    if (turns_.size() >= kDeepestTurn) {
      return;
    }
    Turn turn = begin();
    for (Turn* outer : turns_) {
      outer->disturbed = true;
    }
    turns_.push_back(&turn);
    bool escaped = false;
    bool result = false;
    try {
      result = EventLoop::current().dispatch();
    } catch (const Thrown&) {
      escaped = true;
    }
    turns_.pop_back();
    require(escaped == std::exchange(throwing_, false), "an exception was lost");
    require(!escaped || hookCalled_ != last_.died, "the exception hook");
    require(escaped || result == turn.called, "what dispatch() returns");
    turn.disturbed = turn.disturbed || escaped;
    end(turn);
  }

  Turn begin() {
    Turn turn;
    turn.number = ++lastTurn_;
    turn.firstNewOrder = lastOrder_ + 1;
    const auto now = VirtualClock::now();
    for (const HandlerState& state : states_) {
      if (state.fd >= 0 && !state.overridden) {
        noteReady(turn, state);
      }
      for (const TimerState& timer : state.timers) {
        if (timer.pending && timer.deadline <= now) {
          turn.timersDue.insert(timer.order);
        }
      }
    }
    return turn;
  }

  void noteReady(Turn& turn, const HandlerState& state) const {
    const auto watch = std::find_if(
        watched_.begin(), watched_.end(),
        [&state](const auto& candidate) { return candidate.second == state.registration; });
    if (watch == watched_.end()) {
      return;  // its descriptor was closed first, and was the file's last
    }
    const File& file = *watch->first.first;
    const Pause& reading = state.readPause;
    const Pause& writing = state.writePause;
    const bool readable = file.pending > 0 || file.far.get() < 0;
    // The kernel reports a hang-up unasked, and the pause may end before that is looked at.
    const bool hungUp = file.far.get() < 0 && isDue(reading);
    Turn::Ready& ready = turn.ready[state.registration];
    ready.read = readable && (mayBeOver(reading) || hungUp);
    ready.readForCertain = readable && reading.state == Pause::State::kNone;
    ready.write = state.interest && mayBeOver(writing) && mayBeOver(reading);
    ready.writeForCertain = state.interest && reading.state == Pause::State::kNone &&
                            writing.state == Pause::State::kNone;
    for (const Pause* pause : {&reading, &writing}) {
      if (isDue(*pause)) {
        turn.pausesDue.insert(pause);
      }
    }
  }

  static bool isDue(const Pause& pause) {
    return pause.state != Pause::State::kNone && pause.until <= VirtualClock::now();
  }

  /// A turn around this one may have ended a pause that is due.
  bool mayBeOver(const Pause& pause) const {
    return pause.state != Pause::State::kPaused || (isDue(pause) && !turns_.empty());
  }

  void end(const Turn& turn) {
    const bool sure = !turn.disturbed && !turn.letGo;
    for (unsigned place = 0; place < kHandlers; ++place) {
      HandlerState& state = states_[place];
      const auto ready = turn.ready.find(state.registration);
      if (state.registration != 0 && ready != turn.ready.end() && !state.overridden) {
        require(turn.disturbed || !ready->second.readForCertain || ready->second.wasRead,
                "a read event was lost");
        require(turn.disturbed || !ready->second.writeForCertain || ready->second.wasWritten ||
                    !state.interest || state.interestChanged >= turn.number,
                "a write event was lost");
      }
      for (Pause* pause : {&state.readPause, &state.writePause}) {
        if (isDue(*pause)) {  // after a timer, it may have to wait for the next turn
          const bool over = sure && !turn.timedOut && turn.pausesDue.count(pause) != 0;
          pause->state = over ? Pause::State::kNone : Pause::State::kPerhaps;
        }
      }
    }
    if (sure) {
      requireTimers(turn);
    }
  }

  void requireTimers(const Turn& turn) const {
    for (const HandlerState& state : states_) {
      for (const TimerState& timer : state.timers) {
        const bool withheld = &timer == &state.timers[1] && state.fd >= 0;
        require(
            turn.timedOut || !timer.pending || turn.timersDue.count(timer.order) == 0 || withheld,
            "a timer was lost");
      }
    }
  }

  // --- callbacks ---

  enum class Kind : std::uint8_t { kRead, kWrite, kTimeout };

  struct Callback {
    unsigned place = 0;
    Registration registration = 0;
    Kind kind = Kind::kTimeout;
    bool died = false;
    bool deferred = false;
  };

  Turn& current() {
    require(!turns_.empty(), "a callback outside of any turn");
    Turn& turn = *turns_.back();
    require(turn.number == lastTurn_, "a callback of a turn that was overtaken");
    turn.called = true;
    return turn;
  }

  Turn::Ready& eventFor(unsigned place, int fd) {
    Turn& turn = current();
    const HandlerState& state = states_[place];
    require(handlers_[place] != nullptr && state.fd == fd && !state.overridden,
            "an event for what is not attached");
    const auto ready = turn.ready.find(state.registration);
    require(ready != turn.ready.end(), "an event from before the registration");
    return ready->second;
  }

  void onRead(unsigned place, int fd) {
    Turn::Ready& ready = eventFor(place, fd);
    require(ready.read && !ready.wasRead, "a read event that was not there");
    require(!ready.wasWritten, "a read event after the write event");
    ready.wasRead = true;
    inCallback(place, states_[place].registration, Kind::kRead);
  }

  void onWrite(unsigned place, int fd) {
    Turn::Ready& ready = eventFor(place, fd);
    require(ready.write && !ready.wasWritten, "a write event that was not there");
    require(states_[place].interest, "a write event without interest");
    ready.wasWritten = true;
    inCallback(place, states_[place].registration, Kind::kWrite);
  }

  void onTimeout(unsigned place, bool guarded) {
    Turn& turn = current();
    TimerState& timer = states_[place].timers[guarded ? 1 : 0];
    require(timer.pending && timer.deadline <= VirtualClock::now(), "a timer that was not due");
    require(timer.order < turn.firstNewOrder, "a timer that was armed in this very turn");
    require(!guarded || states_[place].fd < 0, "a withheld timer");
    require(guarded || isFirst(timer), "timers out of order");
    require(!std::exchange(turn.timedOut, true), "a second timer in one turn");
    timer.pending = false;
    timer.earliest = VirtualClock::now() + 1ms;
    inCallback(place, 0, Kind::kTimeout);
  }

  bool onException() {
    require(throwing_ && !last_.died, "an exception hook nobody has to call");
    hookCalled_ = true;
    throwing_ = decisions_.below(2) == 0;
    if (!throwing_) {
      finish();
    }
    return !throwing_;
  }

  bool isFirst(const TimerState& timer) const {
    for (const HandlerState& state : states_) {
      const TimerState& other = state.timers[0];
      if (other.pending &&
          std::pair(other.deadline, other.order) < std::pair(timer.deadline, timer.order)) {
        return false;
      }
    }
    return true;
  }

  /// What the application does in a callback.
  void inCallback(unsigned place, Registration registration, Kind kind) {
    Callback callback{place, registration, kind};
    callbacks_.push_back(&callback);
    if (kind == Kind::kRead && decisions_.below(2) == 0) {
      drain();
    }
    for (unsigned left = decisions_.below(4); left > 0; --left) {
      operation();
    }
    if (decisions_.below(4) == 3) {
      defer(decisions_.below(kHandlers), decisions_.below(2) == 0 ? Kind::kRead : Kind::kWrite);
    }
    callbacks_.pop_back();
    last_ = callback;
    hookCalled_ = false;
    throwing_ = decisions_.below(8) == 7;
    finish();
  }

  /// Concerns that handler's innermost callback of that kind, if there is one.
  void defer(unsigned place, Kind kind) {
    if (handlers_[place] == nullptr || states_[place].closedFirst) {
      return;
    }
    kind == Kind::kRead ? handlers_[place]->deferReadEvent() : handlers_[place]->deferWriteEvent();
    const auto callback =
        std::find_if(callbacks_.rbegin(), callbacks_.rend(), [&](const Callback* running) {
          return running->place == place && running->kind == kind && !running->died;
        });
    if (callback != callbacks_.rend()) {
      (*callback)->deferred = true;
    }
  }

  /// The end of a callback, which may be an exception, or its hook's, if that has dealt with it.
  void finish() {
    if (throwing_) {
      throw Thrown{};
    }
    HandlerState& state = states_[last_.place];
    if (last_.registration == 0 || state.registration != last_.registration || state.overridden) {
      return;
    }
    Pause& pause = last_.kind == Kind::kRead ? state.readPause : state.writePause;
    for (Turn* turn : turns_) {
      turn->pausesDue.erase(&pause);  // that was the one before
    }
    if (!last_.deferred || (last_.kind == Kind::kWrite && !state.interest)) {
      pause = {};
      return;
    }
    pause.length = std::clamp(2 * pause.length, 1ms, 100ms);
    pause.until = VirtualClock::now() + pause.length;
    pause.state = Pause::State::kPaused;
  }

  Decisions decisions_{""};
  std::array<std::unique_ptr<Handler>, kHandlers> handlers_;
  std::array<HandlerState, kHandlers> states_;
  std::vector<std::unique_ptr<File>> files_;
  std::map<int, File*> table_;
  std::map<std::pair<File*, int>, Registration> watched_;  // what the kernel would watch
  Registration lastRegistration_ = 0;
  unsigned lastOrder_ = 0;
  unsigned lastTurn_ = 0;
  std::vector<Turn*> turns_;
  std::vector<Callback*> callbacks_;
  Callback last_;
  bool throwing_ = false;
  bool hookCalled_ = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  return converse<World>(data, size);
}
