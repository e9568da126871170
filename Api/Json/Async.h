#pragma once

#include <deque>

#include "../../Kelvo/Platform/FdEventHandler.h"
#include "../../Kelvo/Ptr.h"
#include "../../Kelvo/String.h"
#include "Export.h"
#include "Types.h"

namespace Tovik {

/// The sending and reading half of a connection that lives in the event loop; `Connection` and
/// `AsyncClient` derive from it. It owns a non-blocking socket from `setFd` until
/// `terminateConnection`, and the payloads that wait to be written.
///
/// Detached, it queues what it is told to send. Attached, it writes at once and keeps what the
/// socket cannot take until the loop reports the socket writable again. The queue has no bound and
/// nothing in it is dropped while the connection lives; a termination drops it all.
///
/// Everything runs on the thread of the event loop on which it was attached; nothing is locked. No
/// operation waits, and none throws because of the socket: a peer that is gone terminates the
/// connection, other failures are logged. Ending a connection needs no memory. The library does
/// nothing about SIGPIPE, which is the process's to ignore.
///
/// A sink of the debug channel may use the sender whose record it gets: send, terminate, attach. It
/// may not destroy a sender or a server, nor free a server's connections.
class TOVIK_API AsyncSender : public Kelvo::Platform::FdEventHandler {
 public:
  ~AsyncSender() override;

  /// Makes `fd`, connected and non-blocking, this sender's socket and owns it from then on. A
  /// connection held so far is terminated first. Payloads that wait are not written until the next
  /// `asyncSendMsg`.
  /// @throws Kelvo::Exception if the event loop cannot watch it; `fd` is then still the caller's.
  void setFd(int fd);

  /// Queues the message's compact text after what waits already, then flushes.
  void asyncSendMsg(const Message& msg);

  /// Writes queued payloads, one record each, until none is left or the socket takes no more.
  void flushQueue();

  /// Reads all that the socket holds into `out`. A record is cut at its first NUL byte and at 4095
  /// bytes; after a read of just that length, the next record is appended.
  /// @return 0, or -1 without a socket or after a read error (which is logged). With 0, an empty
  /// `out` means that the peer has closed or that there was nothing to read.
  int asyncRead(Kelvo::String& out) const;

  /// Detaches and closes the socket and drops the queue; without a socket it does nothing. Every
  /// teardown but the destructor's comes through here, so that an override sees it; an override
  /// calls this one first.
  virtual void terminateConnection();

  /// Drops every queued payload and frees the storage of a backlog, sent or not. Never throws.
  void clearQueue();

  /// True from `setFd` until the connection ends.
  bool isAttached() const noexcept { return !fdControl_.empty(); }

  void writeFdEvent(int fd) override;

 protected:
  AsyncSender();

  /// Empty while there is no socket.
  Kelvo::Ptr<Kelvo::Platform::FdControl> fdControl_;
  /// The payloads that wait, oldest first.
  std::deque<Kelvo::String> sendQueue_;
  /// 4096: a reader's bytes and a NUL.
  const int readBufferSize_;
};

}  // namespace Tovik
