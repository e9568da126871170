#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "Kelvo/Platform/Mailbox.h"
#include "Kelvo/Platform/TimerQueue.h"
#include "Kelvo/Ptr.h"

struct epoll_event;

namespace Kelvo::Platform {

class FdEventHandler;

/// An event loop's insides: the kernel's three descriptors, the table of registrations and the
/// queue of timers. The loop, its controls and its timers share it, so that it lives as long as any
/// of them.
class LoopCore : public Counted {
 public:
  using Time = TimerQueue::Time;

  /// Names one registration, and never another one again: generation above, descriptor below.
  using Token = std::uint64_t;

  /// What an event is delivered to.
  class Registration {
   public:
    virtual bool deliverRead() = 0;   // true if it called the application,
    virtual bool deliverWrite() = 0;  // which may have destroyed the registration
    virtual const FdEventHandler* handler() const = 0;

   protected:
    ~Registration() = default;
  };

  /// Is told when a given handler gains or loses a descriptor.
  class AttachmentWatcher {
   public:
    virtual void attachmentsChanged(int by) = 0;

   protected:
    ~AttachmentWatcher() = default;
  };

  LoopCore();

  // One turn, and what wakes it.
  bool turn(int timeoutMilliseconds);
  const std::shared_ptr<Mailbox>& mailbox() const noexcept { return mailbox_; }
  bool inOwnerProcess() const noexcept { return mailbox_->inOwnerProcess(); }
  void requireOwnerProcess() const;
  int fd() const noexcept { return epoll_.fd(); }

  // Registrations. `add` and `setEvents` throw if the kernel refuses; `remove` never fails. Without
  // events a descriptor leaves the kernel's set, which reports errors and hang-ups unasked.
  Token add(int fd, Registration& registration);
  void setEvents(Token token, std::uint32_t events);
  void remove(Token token);
  Registration* find(Token token) const noexcept;

  // Attachments of single handlers. The initial number comes back from `watch`.
  int watch(const FdEventHandler* handler, AttachmentWatcher& watcher);
  void unwatch(const FdEventHandler* handler, AttachmentWatcher& watcher) noexcept;

  // Timers. Only `schedule` throws; the other two are for teardowns.
  static Time now() noexcept;
  void schedule(TimerQueue::Entry& entry, Time deadline);
  bool trySchedule(TimerQueue::Entry& entry, Time deadline) noexcept;
  void cancel(TimerQueue::Entry& entry) noexcept;

 private:
  /// A descriptor that is closed with its owner.
  class OwnedFd {
   public:
    explicit OwnedFd(int fd);  // throws if it is negative, with errno's text
    OwnedFd(const OwnedFd&) = delete;
    OwnedFd& operator=(const OwnedFd&) = delete;
    ~OwnedFd();
    int fd() const noexcept { return fd_; }

   private:
    const int fd_;
  };

  struct Slot {
    std::uint32_t generation = 0;
    Registration* registration = nullptr;
    std::uint32_t events = 0;  // asked of the kernel; none: not in its set
  };

  bool isCurrentTurn(std::uint64_t turn) const;
  bool deliver(const epoll_event& event);
  void claimSlot(std::size_t index, Registration& registration);
  bool takeMail();
  bool runDueTimer(Time time);
  bool programTimer() noexcept;
  void notifyWatchers(const FdEventHandler* handler, int by);

  const OwnedFd epoll_;
  const std::shared_ptr<Mailbox> mailbox_;
  const OwnedFd timer_;

  std::vector<Slot> slots_;  // by descriptor number
  std::uint32_t lastGeneration_ = 0;
  std::unordered_multimap<const FdEventHandler*, AttachmentWatcher*> watchers_;

  TimerQueue timers_;
  Time programmed_;   // the kernel's timer is set to this,
  Time readableFor_;  // or has expired and stands for every deadline up to this one
  std::uint64_t turns_ = 0;
  std::uint64_t timerMark_ = 0;  // timers queued from here on wait for a later turn
};

}  // namespace Kelvo::Platform
