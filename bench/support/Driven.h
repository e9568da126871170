#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

// How the driver talks to the programs it measures. A server says "ready" and its process id on
// standard output and then serves until it is ended. A client obeys lines of the form "verb count"
// on standard input, and answers each with a number of samples and the samples, 64 bits each, in
// nanoseconds.

namespace Bench {

using Samples = std::vector<std::uint64_t>;
using Commands = std::map<std::string, std::function<Samples(unsigned count)>>;

/// What a contestant's client can do. A failure is an exception, and ends the program.
class Client {
 public:
  Client() = default;
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;
  virtual ~Client() = default;

  /// One request, until its reply is there and checked.
  virtual void call() = 0;
  /// That number of one-way messages, then what it takes to know that the server has had all.
  virtual void stream(unsigned count);

 private:
  /// One of them.
  virtual void note();
};

/// So many times, the nanoseconds that the work takes.
template <class Work>
Samples timed(unsigned count, Work work) {
  Samples samples(count);
  for (auto& sample : samples) {
    const auto start = std::chrono::steady_clock::now();
    work();
    const std::chrono::nanoseconds took = std::chrono::steady_clock::now() - start;
    sample = static_cast<std::uint64_t>(took.count());
  }
  return samples;
}

void announceReady();

/// Obeys until the driver closes standard input.
void obey(const Commands& commands);
/// The verbs "call" (a sample for each), "stream" (one sample for all), and those of its own.
void obey(Client& client, Commands own = {});

/// The role of a client.
template <class Kind>
void driveClient(const std::string& address) {
  Kind client(address);
  obey(client);
}

/// Runs `serve(address)` or `drive(address)`, as the arguments say, and turns exceptions into an
/// exit status. The process ends with the driver, however that ends.
using Role = std::function<void(const std::string& address)>;
int runAs(int argc, char** argv, const std::map<std::string, Role>& roles);

}  // namespace Bench
