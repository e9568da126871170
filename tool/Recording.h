#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "tool/Output.h"

namespace tool {

enum class Direction { kToServer, kToClient };

/// One record that went through a relay, as it stands in a recording.
struct Record {
  Direction direction = Direction::kToServer;
  std::uint64_t connection = 0;  // numbered from 1
  int pid = 0;                   // the client's
  unsigned uid = 0;
  std::string text;
  bool refused = false;
};

/// {"time":...,"direction":"to-server","connection":1,"pid":...,"uid":...,"text":...}; bytes that
/// are no UTF-8 stand under "hex" instead of "text", and a record that was not passed on has
/// "refused":true.
std::string recordingOf(const Record& record);

/// The record in one line. False if there is none.
bool parseRecording(std::string_view line, Record& record);

/// Shows records on standard output, and appends them to a file if it has a name, each at once.
class RecordLog {
 public:
  RecordLog(const std::string& file, bool timestamps);
  RecordLog(const RecordLog&) = delete;
  RecordLog& operator=(const RecordLog&) = delete;
  ~RecordLog();

  void show(const Record& record);

 private:
  void append(const std::string& line) const;

  const std::string file_;
  int fd_ = -1;
  const bool timestamps_;
};

}  // namespace tool
