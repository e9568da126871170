// A line of a recording, as `tovik replay` reads it: whatever is taken for a record is written as
// a line that reads as the same record.

#include "tool/Recording.h"

#include "fuzz/Support.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tool::Record record;
  if (!tool::parseRecording({reinterpret_cast<const char*>(data), size}, record)) {
    return 0;
  }
  const std::string line = tool::recordingOf(record);
  tool::Record again;
  fuzz::require(tool::parseRecording(line, again), "a written record is none");
  fuzz::require(again.text == record.text, "the text");
  fuzz::require(again.direction == record.direction, "the direction");
  fuzz::require(again.connection == record.connection, "the connection");
  fuzz::require(again.pid == record.pid && again.uid == record.uid, "the client");
  fuzz::require(again.refused == record.refused, "whether it was refused");
  return 0;
}
