#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <type_traits>

#include "Kelvo/Platform/FdEventHandler.h"
#include "Kelvo/Ptr.h"

// Children of this program, and how they are told what to do. None outlives the program: the kernel
// kills them when it ends, however it ends.

namespace Soak {

/// A scenario cannot go on: a child has died, or has not answered in time.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

enum class Verb : std::uint64_t {
  // to a server
  kBroadcast,  // so many
  kPace,       // so many, one each so many microseconds; answers when it has
  kAdmit,      // 0 or 1
  kClose,      // ends the server
  kOpen,       // and starts it anew in the same process
  // to clients
  kAwaitSubscribed,  // answers when every client has had an answer over its present connection
  kAwaitLost,        // answers when none has
  kAwaitSequence,    // answers when every subscriber has seen that notification of that run
  kCall,             // each caller so many times
  kCallOn,           // each caller without end
  kAwaitCalls,       // ends that; answers when no caller waits for a reply
  kForgetTimes,
  // to blocking clients
  kBurst,  // so many at once
  kFlood,  // for so many milliseconds
  // to all
  kLevels,  // of the debug channel
  kFigures  // answers with the role's figures
};

struct Command {
  Verb verb = Verb::kFigures;
  std::uint64_t number = 0;
  std::uint64_t more = 0;
};

/// The answer that says no more than that it has been done.
struct Done {
  char nothing = 0;
};

/// What a process takes of the machine. Memory is what is the process's own: pages of the libraries
/// come and go with the system's cache.
struct Resources {
  std::uint64_t kilobytes = 0;
  std::uint64_t descriptors = 0;
  std::uint64_t heap = 0;      // bytes in use, of those who tell
  std::uint64_t switches = 0;  // how often it was given a processor and gave it back, or lost it
};

using Clock = std::chrono::steady_clock;

class Process {
 public:
  /// What the child does; never returns. It gets the descriptor that its commands come from.
  using Role = std::function<void(int commands)>;

  /// Starts a child and waits until it is ready: its role says so with an answer of type Done.
  Process(std::string name, const Role& role);
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  /// Kills it.
  ~Process();

  void tell(const Command& command) const;

  template <class Answer = Done>
  Answer ask(const Command& command) const {
    tell(command);
    return await<Answer>();
  }

  template <class Answer = Done>
  Answer await() const {
    static_assert(std::is_trivially_copyable_v<Answer>);
    Answer answer{};
    receive(&answer, sizeof answer);
    return answer;
  }

  void signal(int number) const;
  Resources resources() const;
  const std::string& name() const { return name_; }

  /// How long `await` waits at most.
  static std::chrono::seconds patience;

 private:
  void receive(void* answer, std::size_t size) const;

  const std::string name_;
  pid_t pid_ = -1;
  int commands_ = -1;
};

/// The child's end, in its event loop.
class Commands final : public Kelvo::Platform::FdEventHandler {
 public:
  using Handler = std::function<void(const Command&)>;

  Commands(int fd, Handler handler);

  template <class Answer>
  void answer(const Answer& answer) const {
    send(fd_, &answer, sizeof answer);
  }

  void readFdEvent(int fd) override;

  // The same without an event loop.

  /// Waits for a command; ends the process if there will be none.
  static Command receive(int fd);
  static void send(int fd, const void* answer, std::size_t size);

 private:
  const int fd_;
  const Handler handler_;
  const Kelvo::Ptr<Kelvo::Platform::FdControl> control_;
};

}  // namespace Soak
