// The service: a timer that publishes, two commands, a rule for who is admitted.

#include <fstream>
#include <iostream>
#include <stdexcept>

#include "Api/Admission.h"
#include "Api/Service/Service.h"
#include "Kelvo/Platform/Debug.h"
#include "Kelvo/Platform/TimeoutHandler.h"
#include "examples/hostmon/Hostmon.h"

namespace Hostmon {

namespace {

constexpr double kShortestInterval = 0.1;  // seconds
constexpr double kLongestInterval = 3600;

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

/// What /proc tells about the host at this moment: the load of the last minute, the memory that is
/// available to programs, and how many seconds it has been up.
Tovik::Message readHost() {
  return Tovik::object("load", firstNumberOf("/proc/loadavg"), "memory", availableMemoryMiB(),
                       "uptime", firstNumberOf("/proc/uptime"));
}

class Monitor : public Kelvo::Platform::TimeoutHandler {
 public:
  Monitor(const std::string& name, Tovik::Service::Admission admission)
      : service_(name, std::move(admission), {"Watches its host."}) {
    using Tovik::required;
    service_.topic("host", {"Its load, free memory in MiB, uptime in seconds; at an interval.",
                            Tovik::Topic::kKeepLast, Tovik::Topic::kQueueLatest});
    service_.command("interval", "Sets the interval.",
                     {required<double>("seconds", "From 0.1 to 3600.")},
                     [this](Tovik::Request request) { setInterval(request); });
    service_.command("get", "Reads one value.",
                     {required<std::string>("value", "load, memory or uptime.")}, get);
    timeout();
  }

  void timeout() override {
    service_.publish("host", readHost());
    timer_->arm(interval_);
  }

 private:
  void setInterval(Tovik::Request& request) {
    const auto seconds = request.get<double>("seconds");
    if (seconds < kShortestInterval || seconds > kLongestInterval) {
      throw Tovik::Refusal(22, "an interval is from 0.1 s to 3600 s");
    }
    interval_ = seconds;
    timer_->arm(interval_);
    request.reply();
  }

  static void get(Tovik::Request request) {
    const auto value = Tovik::get<Tovik::Message>(readHost(), request.get<std::string>("value"));
    if (!value) {
      throw Tovik::Refusal(22, "a value is load, memory or uptime");
    }
    request.reply(*value);
  }

  Tovik::Service service_;
  Kelvo::Ptr<Kelvo::Platform::Timer> timer_ = Kelvo::Platform::getTimer(this);
  double interval_ = 1;
};

/// The libraries' own diagnostics: errors, and who was admitted or denied.
void showLog() {
  for (const char* channel : {"Tovik", "TovikService"}) {
    Kelvo::Platform::setDebugSink(
        channel, [](const auto& record) { std::cout << record.text << std::endl; });
    Kelvo::Platform::setDebugLevels(channel, 0b11);
  }
}

}  // namespace

int serve(const std::string& name) {
  using namespace Tovik::Admission;
  showLog();
  const Monitor monitor(name, root() || sameUser());
  std::cout << "listening as " << name << std::endl;
  runUntilSignalled();
  return 0;
}

}  // namespace Hostmon
