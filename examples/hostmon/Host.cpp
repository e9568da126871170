#include "examples/hostmon/Host.h"

#include <fstream>
#include <stdexcept>
#include <string>

#include "Api/Service/Object.h"

namespace Hostmon {

namespace {

double firstNumberOf(const char* path) {
  double number = 0;
  if (!(std::ifstream(path) >> number)) {
    throw std::runtime_error(std::string("cannot read ") + path);
  }
  return number;
}

unsigned availableMemoryMiB() {
  std::ifstream file("/proc/meminfo");
  std::string word;
  unsigned kibibytes = 0;
  while (file >> word) {
    if (word == "MemAvailable:" && file >> kibibytes) {
      return kibibytes / 1024;
    }
  }
  throw std::runtime_error("cannot find MemAvailable in /proc/meminfo");
}

}  // namespace

Host Host::read() {
  return {firstNumberOf("/proc/loadavg"), availableMemoryMiB(), firstNumberOf("/proc/uptime")};
}

Tovik::Message Host::toMessage() const {
  return Tovik::object("load", load, "memory", memoryMiB, "uptime", uptime);
}

}  // namespace Hostmon
