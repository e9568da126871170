#pragma once

// Private.

#include <cstddef>
#include <list>
#include <memory>
#include <string>

#include "Kelvo/Platform/FdEventHandler.h"
#include "Kelvo/Ptr.h"

namespace Tovik {

/// One end of a connection: records in, and records out through a queue. Sending never
/// calls anybody back and never ends the connection at once: whatever goes wrong, or is ended by
/// `shutDown`, is seen by the read event that follows. So all that a connection tells its owner
/// comes from the loop.
class Link : public Kelvo::Platform::FdEventHandler {
 public:
  struct Bounds {
    std::size_t records;
    std::size_t bytes;
  };
  /// Shared by all those to whom the same text goes.
  using Text = std::shared_ptr<const std::string>;

  explicit Link(Bounds bounds) : bounds_(bounds) {}
  ~Link() override { drop(); }

  /// Owns and watches `fd`, a connected socket, unless this throws.
  void open(int fd);

  /// True while records can be sent.
  bool isOpen() const noexcept { return control_ && state_ == State::kOpen; }

  /// Whether a record of this size may be queued. The owner asks, and decides what else to do.
  bool hasRoom(std::size_t size) const noexcept {
    return queue_.size() < bounds_.records && bytes_ + size <= bounds_.bytes;
  }

  /// Sends a record, or queues it with a tag.
  void send(Text text, const void* tag = nullptr);

  /// Takes what waits with that tag out of the queue.
  void unqueue(const void* tag);

  /// Ends the connection for the peer now, and for the owner in the read event that follows.
  void shutDown(std::string reason);

  /// Closes without telling anybody.
  void drop() noexcept;

  std::size_t queuedRecords() const noexcept { return queue_.size(); }
  std::size_t queuedBytes() const noexcept { return bytes_; }

  void readFdEvent(int fd) override;
  void writeFdEvent(int fd) override;

 private:
  /// One record, NUL-terminated. These may destroy the link.
  /// @{
  virtual void onRecord(const char* text) = 0;
  virtual void onTooLong(std::size_t size) = 0;
  virtual void onEnd(const std::string& reason) = 0;
  /// @}

  struct Waiting {
    Text text;
    const void* tag;
  };

  enum class State : unsigned char {
    kOpen,
    kMute,  // the peer takes nothing any more; what it had sent before is still read
    kDown,
  };

  bool write(const std::string& text);
  void stop(State state);
  void end(const std::string& reason);

  const Bounds bounds_;
  Kelvo::Ptr<Kelvo::Platform::FdControl> control_;
  std::list<Waiting> queue_;  // takes no memory while it is empty
  std::size_t bytes_ = 0;
  State state_ = State::kOpen;
  std::string reason_;  // once it is down
};

}  // namespace Tovik
