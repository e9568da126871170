#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Api/Json/Types.h"
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
Tovik::Message recordingOf(const Record& record);

/// Appends records to a file, each at once. Without a name it does nothing.
class Recorder {
 public:
  explicit Recorder(const std::string& file);
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;
  ~Recorder();

  bool wanted() const { return fd_ >= 0; }
  void write(const std::string& json);

 private:
  void takeBack(std::size_t bytes) const;

  const std::string file_;
  int fd_ = -1;
};

/// Shows records on standard output, and appends them to a recording.
class RecordLog {
 public:
  RecordLog(const Common& common, const std::string& file, bool timestamps)
      : output_(common), recorder_(file), timestamps_(timestamps) {}

  void show(const Record& record);

 private:
  Output output_;
  Recorder recorder_;
  bool timestamps_;
};

/// All records of a file ("-": standard input), or a failure that names the line.
std::vector<Record> readRecording(const std::string& file);

/// The record in one line. False if there is none.
bool parseRecording(std::string_view line, Record& record);

}  // namespace tool
