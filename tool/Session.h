#pragma once

#include <string>

#include "Api/Json/Client.h"
#include "tool/Options.h"
#include "tool/Report.h"

namespace tool {

/// The library's asynchronous client, with what a command needs on top: it tells why a connection
/// is missing or has ended, looks at the server's user before a byte is sent, hands out records as
/// they came, never blocks the loop for more than a moment, and connects again after a loss only if
/// it has an interval for that.
class Session : public Tovik::AsyncClient {
 public:
  Session(const std::string& name, const Options& options, int reconnectInterval = 0);

  const std::string& name() const { return name_; }

  /// Nothing waits to be written.
  bool allWritten() const { return sendQueue_.empty(); }
  /// Nothing that was written waits to be read by the server.
  bool allTaken() const;

 protected:
  /// A connection to the right server's user exists.
  virtual void connected() = 0;
  /// One record has come.
  virtual void received(std::string record) = 0;
  /// The connection has ended: `error` is 0 if the server closed it after it had read everything.
  virtual void lost(int error);
  /// An attempt to connect has failed.
  virtual void notConnected(int error);
  /// The queue was flushed from the loop.
  virtual void written() {}

  /// What `lost` and `notConnected` throw unless overridden.
  Failure lostFailure() const;
  Failure notConnectedFailure(int error) const;

 private:
  void timeout() override;
  void readFdEvent(int fd) override;
  void writeFdEvent(int fd) override;
  void terminateConnection() override;

  void checkServer();

  const std::string name_;
  const Options& options_;
  const bool reconnects_;
  bool reached_ = false;
  int lossError_ = 0;
};

/// Reads one whole record, without blocking. Its length, 0 at the end of the connection, or minus
/// the errno value.
long readRecord(int fd, std::string& record);

/// How long the command may wait, in seconds.
double timeLimit(const Options& options, double unlessGiven);

}  // namespace tool
