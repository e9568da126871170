#pragma once

#include <sys/types.h>

#include <array>
#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Api/Json/Server.h"
#include "tests/model/Model.h"
#include "tests/support/Support.h"

namespace model {

/// What a server tells of itself; one in a process of its own, through shared memory.
struct Report {
  std::atomic<unsigned> validations{0}, readEvents{0}, invalid{0}, readResets{0};
  std::array<std::atomic<unsigned>, kClients> handled{};
  std::atomic<bool> admits{true};
};

/// The server that the model describes, in this process or in one of its own.
class AnyServer {
 public:
  virtual ~AnyServer() = default;
  virtual void notify(unsigned number) = 0;
  virtual void freeDead() = 0;
  Report& report() { return *report_; }

 protected:
  explicit AnyServer(Report* report) : report_(report) {}
  Report* const report_;
};

/// The application of the library: answers calls and echoes, and takes notes.
class LocalServer final : public AnyServer {
 public:
  LocalServer(const std::string& name, Report* report);
  void notify(unsigned number) override;
  void freeDead() override { server_.freeDeadConnections(); }

  /// The messages handled, by sender.
  std::array<std::vector<std::string>, kClients> handled;

 private:
  void handle(Tovik::Connection& connection, const Tovik::Message& message);
  Tovik::Server server_;
};

/// The same in a child process, which is killed in the end.
class ChildServer final : public AnyServer {
 public:
  ChildServer(const std::string& name, Report* report);
  ~ChildServer() override;
  void notify(unsigned number) override;
  void freeDead() override {}

 private:
  pid_t pid_ = -1;
  Fd commands_;  // to the child, which answers each with one byte
};

/// Collects the library's lines of level 0 in this process, and counts its read events.
class Log {
 public:
  Log();
  std::map<std::string, unsigned> errors;
  unsigned readEvents = 0;

 private:
  LogSink sink_;
};

}  // namespace model
