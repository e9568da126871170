#include "bench/support/Driven.h"

#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <exception>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include "bench/support/Raw.h"

namespace Bench {

namespace {

void answer(const Samples& samples) {
  Samples text{samples.size()};
  text.insert(text.end(), samples.begin(), samples.end());
  const char* rest = reinterpret_cast<const char*>(text.data());
  for (std::size_t left = text.size() * sizeof text[0]; left > 0;) {
    const auto written = must(::write(STDOUT_FILENO, rest, left), "write");
    rest += written;
    left -= static_cast<std::size_t>(written);
  }
}

}  // namespace

void Client::stream(unsigned count) {
  for (; count > 0; --count) {
    note();
  }
  call();
}

void Client::note() {
  throw std::runtime_error("this client has no one-way messages");
}

void announceReady() {
  std::cout << "ready " << getpid() << std::endl;
}

void obey(const Commands& commands) {
  std::string line;
  while (std::getline(std::cin, line)) {
    std::istringstream words(line);
    std::string verb;
    unsigned count = 0;
    words >> verb >> count;
    answer(commands.at(verb)(count));
  }
}

void obey(Client& client, Commands own) {
  own["call"] = [&](unsigned count) { return timed(count, [&] { client.call(); }); };
  own["stream"] = [&](unsigned count) { return timed(1, [&] { client.stream(count); }); };
  obey(own);
}

int runAs(int argc, char** argv, const std::map<std::string, Role>& roles) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  std::signal(SIGPIPE, SIG_IGN);
  std::ios::sync_with_stdio(false);
  if (argc != 3 || roles.count(argv[1]) == 0) {
    std::cerr << "usage: " << argv[0] << " ROLE ADDRESS, with one of these roles:";
    for (const auto& [name, role] : roles) {
      std::cerr << ' ' << name;
    }
    std::cerr << '\n';
    return 2;
  }
  try {
    roles.at(argv[1])(argv[2]);
    return 0;
  } catch (const std::exception& failure) {
    std::cerr << argv[0] << ' ' << argv[1] << ": " << failure.what() << '\n';
    return 1;
  }
}

}  // namespace Bench
