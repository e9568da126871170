#pragma once

#include <atomic>
#include <type_traits>
#include <utility>

#include "Export.h"
#include "ThreadControl.h"

namespace Kelvo {

template <class T>
class Ptr;

/// Base of everything that a `Ptr` holds: a reference count and a virtual destructor.
class KELVO_API Counted {
 public:
  Counted() = default;
  Counted(const Counted&) = delete;
  Counted& operator=(const Counted&) = delete;
  virtual ~Counted();

 private:
  template <class T>
  friend class Ptr;

  void addReference() const noexcept {
    if (ThreadControl::tsp_.load(std::memory_order_relaxed)) {
      references_.fetch_add(1, std::memory_order_relaxed);
    } else {
      references_.store(references_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
  }

  /// True when that was the last reference.
  bool dropReference() const noexcept {
    if (ThreadControl::tsp_.load(std::memory_order_relaxed)) {
      return references_.fetch_add(-1, std::memory_order_acq_rel) == 1;
    }
    const int left = references_.load(std::memory_order_relaxed) - 1;
    references_.store(left, std::memory_order_relaxed);
    return left == 0;
  }

  mutable std::atomic<int> references_{0};
};

/// Intrusive counted handle to a `T`, which derives from `Counted`. Releasing the last handle
/// deletes the object through its virtual destructor. Threads may share the object only while
/// `ThreadControl::tsp_` is set; one handle belongs to one thread at a time in any case.
template <class T>
class Ptr {
 public:
  Ptr() noexcept = default;
  /// The first or a further handle to `object`, which may be null.
  explicit Ptr(T* object) noexcept : object_(object) {
    if (object_ != nullptr) {
      object_->addReference();
    }
  }
  /// A further handle to the same object, or one in place of `other`, which is then empty.
  /// @{
  Ptr(const Ptr& other) noexcept : Ptr(other.object_) {}
  Ptr(Ptr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ptr(const Ptr<U>& other) noexcept : Ptr(other.get()) {}
  /// @}
  ~Ptr() { release(object_); }

  /// Releases what it held before.
  Ptr& operator=(Ptr other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }

  /// Empties the handle before the object goes, so that a destructor which looks back at the
  /// handle's owner finds it empty already.
  void reset() noexcept { release(std::exchange(object_, nullptr)); }

  /// The object, or null. Not to be dereferenced while empty.
  /// @{
  T* get() const noexcept { return object_; }
  // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDelete): the analyzer does not count references
  T* operator->() const noexcept { return object_; }
  T& operator*() const noexcept { return *object_; }
  /// @}

  /// Whether it holds an object.
  /// @{
  bool empty() const noexcept { return object_ == nullptr; }
  explicit operator bool() const noexcept { return object_ != nullptr; }
  /// @}

 private:
  static void release(T* object) noexcept {
    if (object != nullptr && object->dropReference()) {
      delete object;
    }
  }

  T* object_ = nullptr;
};

}  // namespace Kelvo
