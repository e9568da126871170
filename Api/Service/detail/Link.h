#pragma once

// Private.

#include <cstddef>
#include <list>
#include <string>

#include "Api/Service/detail/Convention.h"
#include "Kelvo/Platform/FdEventHandler.h"
#include "Kelvo/Ptr.h"

namespace Tovik {

/// One end of a connection: records in, and records out through a queue. Sending never
/// calls anybody back and never ends the connection at once: whatever goes wrong, or is ended by
/// `shutDown`, is seen by the read event that follows. So all that a connection tells its owner
/// comes from the loop.
class Link : public Kelvo::Platform::FdEventHandler {
 public:
  /// The bounds of what may wait.
  Link(std::size_t records, std::size_t bytes) : mostRecords_(records), mostBytes_(bytes) {}
  ~Link() override { drop(); }

  /// Takes over and watches a connected socket, unless this throws.
  void open(Convention::OwnedFd& fd);

  /// True while records can be sent.
  bool isOpen() const noexcept { return isOpen_; }

  /// Whether a record of this size may be queued. The owner asks, and decides what else to do.
  bool hasRoom(std::size_t size) const noexcept {
    return queue_.size() < mostRecords_ && bytes_ + size <= mostBytes_;
  }

  /// Sends a record, or queues it with a tag.
  void send(const std::string& text, const void* tag = nullptr);

  /// Takes what waits with that tag out of the queue.
  void unqueue(const void* tag);

  /// Ends the connection for the peer now, and for the owner in a read event: the next one, or
  /// without a reason, the one that finds the end behind what the peer had sent before.
  void shutDown(std::string reason = {});

  /// Closes without telling anybody.
  void drop() noexcept;

  std::size_t queuedRecords() const noexcept { return queue_.size(); }
  std::size_t queuedBytes() const noexcept { return bytes_; }

  void readFdEvent(int fd) override;
  void writeFdEvent(int fd) override;

 private:
  /// One record, NUL-terminated; one of more than `kLongestRecord` bytes has been cut. These may
  /// destroy the link.
  /// @{
  virtual void onRecord(const char* text, std::size_t size) = 0;
  virtual void onEnd(const std::string& reason) = 0;
  /// @}

  struct Waiting {
    std::string text;
    const void* tag;
  };

  bool write(const std::string& text);
  void clear() noexcept;

  const std::size_t mostRecords_;
  const std::size_t mostBytes_;
  Kelvo::Ptr<Kelvo::Platform::FdControl> control_;
  std::list<Waiting> queue_;  // takes no memory while it is empty
  std::size_t bytes_ = 0;
  bool isOpen_ = false;
  std::string reason_;  // why it was shut down
};

}  // namespace Tovik
