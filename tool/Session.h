#pragma once

#include <functional>
#include <string>

#include "Api/Json/Async.h"
#include "tool/Report.h"
#include "tool/Run.h"
#include "tool/Verb.h"

namespace tool {

/// A command's connection to a server: it connects without blocking the loop, looks at the server's
/// user before a byte is sent, hands out records as they came, tells why a connection is missing or
/// has ended, and connects again after a loss only if it has an interval for that.
class Session : public Tovik::AsyncSender {
 public:
  /// The first attempt to connect happens from the loop.
  Session(std::string name, double reconnectSeconds = 0);
  /// The other end: a connection that a server has accepted.
  struct AcceptedFd {
    int fd;
  };
  Session(std::string name, AcceptedFd client);

  const std::string& name() const { return name_; }

  /// Queues a record. What is queued before there is a connection goes out then.
  void send(const std::string& text);
  /// Nothing waits to be written.
  bool allWritten() const { return sendQueue_.empty(); }
  /// Nothing that was written waits to be read by the server.
  bool allTaken() const;

  /// Turns the loop until the condition holds; see `Run::until`.
  /// @throws Failure if the time limit is over first.
  void await(Run& run, const std::function<bool()>& done, double interval = 0) const;

  /// Why there is no answer yet, once the time limit has passed.
  virtual std::string lateText() const;

 protected:
  /// A connection to the right server's user exists.
  virtual void connected() {}
  /// One record has come.
  virtual void received(std::string record) = 0;
  /// The connection has ended: `error` is 0 if the server closed it after it had read everything.
  virtual void lost(int error);
  /// An attempt to connect has failed.
  virtual void notConnected(int error);

  /// Ends the connection, about which nothing is told.
  void endQuietly() { AsyncSender::terminateConnection(); }

  /// What `lost` and `notConnected` throw unless overridden.
  Failure lostFailure() const;
  Failure notConnectedFailure(int error) const;

  /// Nobody has been let in for as long as the server's queue of clients is full.
  bool full() const { return full_; }

 private:
  void connect();
  void checkServer();
  void readFdEvent(int fd) override;
  void terminateConnection() override;

  const std::string name_;
  const double reconnectSeconds_;
  bool full_ = false;
  int lossError_ = 0;
  Alarm connect_{[this] { connect(); }};
};

/// Reads one whole record, without blocking. Its length, 0 at the end of the connection, or minus
/// the errno value.
long readRecord(int fd, std::string& record);

}  // namespace tool
