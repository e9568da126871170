#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace bridge {

/// What the command line and the configuration file say.
struct Settings {
  struct Imported {
    std::string name;    // here
    std::string remote;  // the topic that stands before /call, /event, /online and /about
  };

  std::string host;
  int port = 0;
  std::string user, password;
  bool tls = false;
  std::string caFile, certFile, keyFile;
  int keepalive = 15;  // seconds
  int qos = 1;         // of events

  std::string prefix;
  std::vector<std::string> exported;
  std::map<std::string, std::set<std::string>> allowed;  // by name; who is not in it, allows all
  std::vector<Imported> imported;
  std::vector<unsigned> users, groups;  // admitted to imported names, besides the own user and root

  double timeout = 30;              // seconds for a call that does not say
  std::string name = "tovik-mqtt";  // of the service with the statistics; empty: none
  bool checkOnly = false;
};

/// Nothing if the command line asked for something that has been printed.
/// @throws tool::Failure that says what is wrong.
std::optional<Settings> settingsFrom(int argc, char** argv);

}  // namespace bridge
