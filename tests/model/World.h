#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Api/Json/Client.h"
#include "Api/Json/Server.h"
#include "tests/model/Model.h"
#include "tests/support/Support.h"

namespace model {

/// The library and the model do something else.
struct Difference {
  std::string what;
};

/// The real server and the real clients beside their model. Every operation is done on both; what
/// can be compared at once is, the rest when all have settled.
class World {
 public:
  World();

  void startServer();
  void stopServer();
  void notify(unsigned count);
  void admit(bool yes);
  void freeDead();

  void connect(unsigned place);
  void send(unsigned place, Kind kind);
  void close(unsigned place);
  void setReading(unsigned place, bool reading);

  void create(unsigned place, bool subscribes, unsigned interval);
  void destroy(unsigned place);
  void drop(unsigned place);
  void retry(unsigned place);

  void advance(Time by);
  void settle();

  /// Everything ends; nothing may be left.
  void finish();

  const Model& model() const { return model_; }

 private:
  struct AsyncEnd {
    std::unique_ptr<Tovik::AsyncClient> client;
    std::vector<std::string> events;
  };

  void handle(Tovik::Connection& connection, const Tovik::Message& message);
  std::string receive(unsigned place);
  static std::string receiveBlocking(const Tovik::Client& client, const std::string& expected);
  void drain(unsigned place);
  void compare();
  void compareServer();
  void compareLog();

  const std::string name_;
  // What the library logs: the lines of level 0, and how many tell of a read event.
  std::map<std::string, unsigned> errors_;
  unsigned readEvents_ = 0;
  const LogSink sink_;
  Model model_;
  std::array<std::vector<std::string>, kClients> handled_;  // messages, by sender
  unsigned validations_ = 0;
  std::unique_ptr<Tovik::Server> server_;
  std::array<Fd, kRawClients> raw_;
  std::array<std::unique_ptr<Tovik::Client>, kBlockingClients> blocking_;
  std::array<AsyncEnd, kAsyncClients> async_;
  unsigned lastNumber_ = 0;
  std::array<int, kFirstAsync> descriptors_{};
  const std::size_t openAtFirst_;
};

}  // namespace model
