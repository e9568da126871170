#pragma once

#include <rapidjson/document.h>

#include <string>
#include <vector>

namespace Bench {

/// The baseline for the library: the least that a non-blocking server of many clients can do. It
/// has no queues, and gives up where the library would queue.
class EpollServer {
 public:
  explicit EpollServer(const std::string& name);

  /// Waits once, and deals with what is ready.
  void turn();

 private:
  void watch(int fd) const;
  void admit();
  void serve(int fd);
  void broadcast() const;

  const int listening_;
  const int epoll_;
  std::vector<bool> subscribed_;  // by descriptor
  const rapidjson::Document news_;
};

}  // namespace Bench
