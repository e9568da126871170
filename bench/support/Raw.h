#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// Hand-written use of the same sockets that the library uses: what the baselines and the crowd use.

namespace Bench {

/// The result of a system call, or an exception with the system's text if it is negative.
std::int64_t must(std::int64_t result, const char* call);

int listenOn(const std::string& name);
int connectTo(const std::string& name);

/// A stream socket in the file system, where some peers want theirs.
int listenAtPath(const std::string& path);

/// A record of up to 4095 bytes, read into a buffer of its own with a NUL after it.
class Record {
 public:
  /// Reads one; false at the end of the connection.
  bool readFrom(int fd);
  const char* text() const { return bytes_; }
  std::size_t size() const { return size_; }

 private:
  char bytes_[4096];
  std::size_t size_ = 0;
};

/// The next record of a connection that must not end here.
Record answerFrom(int fd);

void writeRecord(int fd, std::string_view text);

}  // namespace Bench
