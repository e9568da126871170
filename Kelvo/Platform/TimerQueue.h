#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <set>
#include <tuple>
#include <utility>

namespace Kelvo::Platform {

/// What is to happen when, in order of time. A plain data structure: it knows no clock of its own.
class TimerQueue {
 public:
  using Time = std::chrono::nanoseconds;  // since the monotonic clock's start

  /// Something that expires. Keeps its own node of the queue while it is not queued, so that
  /// queueing it again allocates nothing and cannot fail. Must be removed before it is destroyed.
  class Entry {
   public:
    Entry() {
      Nodes maker;
      idle_ = maker.extract(maker.insert(this).first);
    }
    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;
    virtual ~Entry() = default;

    /// Called once due, after removal from the queue. May destroy the entry. True if it called the
    /// application.
    virtual bool expire() = 0;

    Time deadline() const { return deadline_; }
    bool queued() const { return idle_.empty(); }

   private:
    friend class TimerQueue;
    struct Earlier {
      bool operator()(const Entry* a, const Entry* b) const {
        return std::tie(a->deadline_, a->order_) < std::tie(b->deadline_, b->order_);
      }
    };
    using Nodes = std::set<Entry*, Earlier>;

    Time deadline_{0};
    std::uint64_t order_ = 0;
    Nodes::node_type idle_;
  };

  void insert(Entry& entry, Time deadline) {
    remove(entry);
    entry.deadline_ = deadline;
    entry.order_ = nextOrder_++;
    entries_.insert(std::move(entry.idle_));
  }

  void remove(Entry& entry) {
    if (entry.queued()) {
      entry.idle_ = entries_.extract(&entry);
    }
  }

  /// The place in line that the next insertion gets.
  std::uint64_t mark() const { return nextOrder_; }

  /// Takes out the first entry that is due at `now` and was inserted before `mark`; null if none.
  Entry* takeDue(Time now, std::uint64_t mark) {
    if (entries_.empty()) {
      return nullptr;
    }
    Entry* first = *entries_.begin();
    if (first->deadline_ > now || first->order_ >= mark) {
      return nullptr;
    }
    remove(*first);
    return first;
  }

  std::optional<Time> earliest() const {
    return entries_.empty() ? std::nullopt : std::optional((*entries_.begin())->deadline_);
  }

 private:
  Entry::Nodes entries_;
  std::uint64_t nextOrder_ = 0;
};

}  // namespace Kelvo::Platform
