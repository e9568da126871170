// tovik-mqtt: the services of this machine on an MQTT broker, and those of others here.

#include <mosquitto.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <exception>
#include <list>
#include <memory>
#include <string_view>

#include "Api/Admission.h"
#include "Kelvo/Exception.h"
#include "mqtt/Export.h"
#include "mqtt/Import.h"
#include "mqtt/Text.h"
#include "tool/Report.h"

namespace {

using bridge::Settings;

/// As systemd's protocol has it; without a service manager nothing is told.
void tellServiceManager(std::string_view state) {
  const char* const variable = std::getenv("NOTIFY_SOCKET");
  const std::string_view path = variable == nullptr ? "" : variable;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path) {
    return;
  }
  path.copy(address.sun_path, path.size());
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
  if (address.sun_path[0] == '@') {
    address.sun_path[0] = '\0';
  }
  const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ::sendto(fd, state.data(), state.size(), MSG_NOSIGNAL,
           reinterpret_cast<const sockaddr*>(&address), size);
  ::close(fd);
}

class Bridge {
 public:
  explicit Bridge(const Settings& settings) {
    for (const auto& name : settings.exported) {
      exports_.emplace_back(settings, name);
    }
    for (const auto& imported : settings.imported) {
      imports_.emplace_back(settings, imported);
    }
    if (!settings.name.empty()) {
      serveStatistics(settings.name);
    }
  }

 private:
  void serveStatistics(const std::string& name) {
    using namespace Tovik;
    try {
      statistics_ =
          std::make_unique<Service>(name, Admission::root() || Admission::sameUser(),
                                    ServiceOptions{"Carries services over an MQTT broker."});
    } catch (const SocketException& error) {
      throw tool::Failure(tool::Exit::kUsage, "the name " + tool::inQuotes(name) +
                                                  " cannot be had: " + error.what() +
                                                  "; choose another one with --name");
    }
    statistics_->command("statistics", "What was carried, one reply for each name.", {},
                         [this](Request request) { tell(std::move(request)); });
  }

  void tell(Tovik::Request request) const {
    std::list<Tovik::Message> all;
    for (const auto& one : exports_) {
      all.push_back(one.counters());
    }
    for (const auto& one : imports_) {
      all.push_back(one.counters());
    }
    for (; all.size() > 1; all.pop_front()) {
      request.more(all.front());
    }
    request.reply(all.front());
  }

  std::list<bridge::Export> exports_;
  std::list<bridge::Import> imports_;
  std::unique_ptr<Tovik::Service> statistics_;
};

void run(const Settings& settings) {
  tool::Run untilSignal(tool::Ending::kIsFailure);
  mosquitto_lib_init();
  const Bridge bridge(settings);
  tellServiceManager("READY=1");
  try {
    untilSignal.until([] { return false; });
  } catch (const tool::Interrupted&) {
    tellServiceManager("STOPPING=1");  // the broker sees the connections end, and says so to others
  }
}

tool::Exit runCommand(int argc, char** argv) {
  const auto settings = bridge::settingsFrom(argc, argv);
  if (settings.has_value() && !settings->checkOnly) {
    run(*settings);
  }
  return tool::Exit::kSuccess;
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  try {
    return static_cast<int>(runCommand(argc, argv));
  } catch (const tool::Failure& failure) {
    bridge::say(failure.what());
    return static_cast<int>(failure.status());
  } catch (const std::exception& error) {
    bridge::say(std::string("the system refused: ") + error.what());
  }
  return static_cast<int>(tool::Exit::kLost);
}
