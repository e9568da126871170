// One process of a scenario: `soak ROLE SETUP`, the latter in JSON. tests/soak/soak.py runs them.

#include <sys/prctl.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <map>
#include <stdexcept>

#include "Kelvo/Platform/Debug.h"
#include "tests/soak/Child.h"

int main(int argc, char** argv) {
  const std::map<std::string, void (*)(const Tovik::Message&)> roles = {
      {"server", Soak::runServer},
      {"clients", Soak::runClients},
      {"blocking", Soak::runBlockingClients},
      {"service", Soak::runService},
      {"proxies", Soak::runProxies}};
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  std::signal(SIGPIPE, SIG_IGN);
  Soak::watchLog(1);
  Kelvo::Platform::setDebugLevels("TovikService", 0);  // which tells of each loss
  try {
    Tovik::Message setup;
    if (argc != 3 || setup.Parse(argv[2]).HasParseError()) {
      throw std::runtime_error("a role and its setup are wanted");
    }
    roles.at(argv[1])(setup);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", argc > 1 ? argv[1] : argv[0], error.what());
  }
  return 1;
}
