#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "Api/Service/Object.h"
#include "Kelvo/Platform/EventLoop.h"
#include "Kelvo/Platform/FdEventHandler.h"

// What the processes of the scenarios have in common: the driver, tests/soak/soak.py, starts each
// with a setup, tells it what to do over its standard input, a socket, and gets its answers from
// there.

// The roles of this program. None returns.
void runServer(const Tovik::Message& setup);
void runClients(const Tovik::Message& setup);
void runBlockingClients(const Tovik::Message& setup);
void runService(const Tovik::Message& setup);
void runProxies(const Tovik::Message& setup);

template <class T>
T of(const Tovik::Message& setup, const char* name) {
  return Tovik::get<T>(setup, name).value();
}

void answer(const Tovik::Message& message = Tovik::object());

/// Obeys the driver in this thread's event loop, and dies with it.
class Commands final : public Kelvo::Platform::FdEventHandler {
 public:
  using Verbs = std::map<std::string, std::function<void(std::uint64_t, std::uint64_t)>>;

  /// Those of this process; all know "levels", which are the debug channel's.
  explicit Commands(Verbs verbs);

  void readFdEvent(int fd) override;

 private:
  Verbs verbs_;
  const Kelvo::Ptr<Kelvo::Platform::FdControl> control_;
};

template <class Role>
void play(const Tovik::Message& setup) {
  const Role role(setup);
  answer();  // that it is ready
  Kelvo::Platform::EventLoop::current().run();
}

/// Bytes that are allocated and not freed; what the process has no use for is given back.
std::uint64_t heapInUse();

/// The clock that all processes share.
std::uint64_t nowNanoseconds();
