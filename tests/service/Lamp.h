#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Api/Service/Service.h"
#include "tests/support/Support.h"

/// A service with something of everything, and what its clients see of it through raw sockets.
class Lamp {
 public:
  explicit Lamp(const Tovik::ServiceOptions& options = {}, std::string name = uniqueName());

  Tovik::Service& operator*() { return *service_; }
  Tovik::Service* operator->() { return service_.get(); }
  const std::string& name() const { return name_; }
  void destroy() { service_.reset(); }

  Fd connect() const { return rawConnect(name_); }

  /// Turns the loop until the next record has come.
  static std::string receive(const Fd& client);
  /// Sends a record and takes the next one.
  static std::string ask(const Fd& client, std::string_view record);
  /// Sends a record and turns the loop until all is done.
  static void tell(const Fd& client, std::string_view record);

  std::vector<Tovik::Request> kept;  // of the command "keep"
  std::vector<std::uint64_t> joined, left;

 private:
  const std::string name_;
  std::unique_ptr<Tovik::Service> service_;
};
