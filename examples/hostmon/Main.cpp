#include <csignal>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "Kelvo/Platform/EventLoop.h"
#include "examples/hostmon/Hostmon.h"

namespace Hostmon {

namespace {

Kelvo::Platform::EventLoop* signalledLoop = nullptr;

int usage() {
  std::cerr << "usage: hostmon serve NAME\n"
               "       hostmon call NAME JSON...\n"
               "       hostmon watch NAME\n";
  return 2;
}

int run(const std::vector<std::string>& arguments) {
  const std::string verb = arguments.empty() ? "" : arguments[0];
  const std::string name = arguments.size() < 2 ? "" : arguments[1];
  if (name.empty()) {
    return usage();
  }
  const std::vector<std::string> rest(arguments.begin() + 2, arguments.end());
  if (verb == "serve" && rest.empty()) {
    return serve(name);
  }
  if (verb == "call" && !rest.empty()) {
    return call(name, rest);
  }
  if (verb == "watch" && rest.empty()) {
    return watch(name);
  }
  return usage();
}

}  // namespace

void runUntilSignalled() {
  signalledLoop = &Kelvo::Platform::EventLoop::current();
  for (const int signal : {SIGINT, SIGTERM}) {
    std::signal(signal, [](int) { signalledLoop->stop(); });
  }
  signalledLoop->run();
}

}  // namespace Hostmon

int main(int argc, char** argv) {
  try {
    return Hostmon::run({argv + 1, argv + argc});
  } catch (const std::exception& failure) {
    std::cerr << "hostmon: " << failure.what() << std::endl;
    return 1;
  }
}
