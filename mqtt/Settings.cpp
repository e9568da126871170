// command line and configuration file -> CLI11 -> checks -> settings.

#include "mqtt/Settings.h"

#include <mosquitto.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <charconv>
#include <fstream>
#include <iostream>

#include "mqtt/Text.h"
#include "tool/Report.h"

namespace bridge {

namespace {

using tool::inQuotes;

constexpr std::size_t kLongestName = 106;

[[noreturn]] void refuse(const std::string& sentence) {
  throw tool::Failure(tool::Exit::kUsage, sentence);
}

void require(bool condition, const std::string& sentence) {
  if (!condition) {
    refuse(sentence);
  }
}

/// The words as they were given, before they are looked at.
struct Words {
  std::string broker, passwordFile;
  std::vector<std::string> imported, allowed;
};

void addOptions(CLI::App& program, Settings& settings, Words& words) {
  program.set_help_flag("-h,--help", "print this");
  program.set_version_flag("-V,--version", "tovik-mqtt " TOVIK_VERSION, "print the version");
  program.set_config("--config", "", "read options from FILE, which has NAME = VALUE lines")
      ->type_name("FILE");
  program.allow_config_extras(CLI::config_extras_mode::error);
  const auto add = [&program](const char* flags, auto& target, const char* value,
                              const char* text) {
    return program.add_option(flags, target, text)->type_name(value);
  };
  add("export,--export", settings.exported, "NAME", "a server of this machine; may be repeated");
  add("--broker", words.broker, "HOST[:PORT]", "the broker; port 1883, or 8883 with TLS")
      ->required();
  add("--prefix", settings.prefix, "TOPIC", "exported names stand below it: TOPIC/NAME");
  add("--allow", words.allowed, "NAME:COMMAND[,...]",
      "the commands of an exported server that may be called from elsewhere; default: all")
      ->delimiter('\0');
  add("--import", words.imported, "NAME=TOPIC",
      "offer the server at TOPIC here, as NAME; may be repeated");
  add("--admit-user", settings.users, "UID",
      "admit this user to imported names, besides the own user and root");
  add("--admit-group", settings.groups, "GID", "likewise the members of this group");
  add("--user", settings.user, "USER", "log in to the broker as this user");
  add("--password-file", words.passwordFile, "FILE", "the password is the file's first line");
  program.add_flag("--tls", settings.tls, "use TLS, and trust whom the system trusts");
  add("--cafile", settings.caFile, "FILE", "use TLS, and trust these certificates only");
  add("--cert", settings.certFile, "FILE", "the own certificate");
  add("--key", settings.keyFile, "FILE", "its key");
  add("--keepalive", settings.keepalive, "SECONDS", "notice a dead connection within this time")
      ->check(CLI::Range(5, 65535))
      ->capture_default_str();
  add("--qos", settings.qos, "0|1", "quality of service of events")
      ->check(CLI::Range(0, 1))
      ->capture_default_str();
  add("--timeout", settings.timeout, "SECONDS", "limit for a call that does not bring one")
      ->check(CLI::Range(0.001, 86400.0))
      ->capture_default_str();
  add("--name", settings.name, "NAME", "of the service that tells statistics; '' for none")
      ->capture_default_str();
  program.add_flag("--check-config", settings.checkOnly, "check all options, and exit")
      ->configurable(false);
}

void takeBroker(Settings& settings, const std::string& text) {
  std::string host = text;
  std::string port = settings.tls ? "8883" : "1883";
  const auto colon = text.rfind(':');
  const bool isBracketed = !text.empty() && text.front() == '[';
  const auto bracket = isBracketed ? text.find(']') : std::string::npos;
  if (colon != std::string::npos && (!isBracketed || colon > bracket)) {
    require(isBracketed || text.find(':') == colon,
            "--broker " + inQuotes(text) + ": an IPv6 address stands in brackets");
    port = text.substr(colon + 1);
    host = text.substr(0, colon);
  }
  settings.host = isBracketed ? host.substr(1, bracket - 1) : host;
  const char* const end = port.data() + port.size();
  const auto [stop, error] = std::from_chars(port.data(), end, settings.port);
  require(!settings.host.empty() && error == std::errc() && stop == end && settings.port > 0 &&
              settings.port < 65536,
          "--broker " + inQuotes(text) + " is no HOST[:PORT]");
}

void requireName(const std::string& name) {
  require(!name.empty() && name.size() <= kLongestName && name.find('\0') == std::string::npos,
          inQuotes(name) + " is no name of a server: it has from 1 to 106 bytes");
}

void requireTopic(const std::string& option, const std::string& topic) {
  const bool isTopic =
      !topic.empty() && topic.front() != '$' && topic.front() != '/' && topic.back() != '/' &&
      mosquitto_pub_topic_check(topic.c_str()) == MOSQ_ERR_SUCCESS &&
      mosquitto_validate_utf8(topic.data(), static_cast<int>(topic.size())) == MOSQ_ERR_SUCCESS;
  require(isTopic, option + " " + inQuotes(topic) +
                       " is no topic: it begins with neither $ nor /, ends without /, and has no " +
                       "wildcard");
}

void takeAllowed(Settings& settings, const std::string& text) {
  for (const auto& name : settings.exported) {
    if (text.compare(0, name.size() + 1, name + ":") != 0) {
      continue;
    }
    auto& commands = settings.allowed[name];
    std::string rest = text.substr(name.size() + 1);
    for (std::size_t comma = 0; comma != std::string::npos;) {
      comma = rest.find(',');
      require(comma != 0 && !rest.empty(), "--allow " + inQuotes(text) + " has an empty command");
      commands.insert(rest.substr(0, comma));
      rest.erase(0, comma == std::string::npos ? comma : comma + 1);
    }
    return;
  }
  refuse("--allow " + inQuotes(text) + " begins with no exported name and a colon");
}

void takeImported(Settings& settings, const std::string& text) {
  const auto sign = text.find('=');
  require(sign != std::string::npos, "--import " + inQuotes(text) + " is no NAME=TOPIC");
  settings.imported.push_back({text.substr(0, sign), text.substr(sign + 1)});
  requireName(settings.imported.back().name);
  requireTopic("--import", settings.imported.back().remote);
}

/// Each name is used once, and nothing comes in that goes out here.
void requireNoCollision(const Settings& settings) {
  std::set<std::string> names{settings.name};
  std::set<std::string> topics;
  for (const auto& name : settings.exported) {
    requireName(name);
    require(names.insert(name).second, "the name " + inQuotes(name) + " is used twice");
    topics.insert(settings.prefix + "/" + levelOf(name));
  }
  for (const auto& imported : settings.imported) {
    require(
        names.insert(imported.name).second,
        "the name " + inQuotes(imported.name) +
            " is used twice: what is exported, imported and the statistics have different names");
    require(topics.count(imported.remote) == 0,
            inQuotes(imported.remote) + " is exported here, and importing it would be a loop");
  }
}

void requireReadable(const std::string& option, const std::string& file) {
  if (!file.empty() && ::access(file.c_str(), R_OK) != 0) {
    refuse(option + " " + inQuotes(file) + " cannot be read: " + std::strerror(errno));
  }
}

std::string passwordIn(const std::string& file) {
  requireReadable("--password-file", file);
  struct stat status {};
  require(::stat(file.c_str(), &status) == 0 && (status.st_mode & S_IROTH) == 0,
          "--password-file " + inQuotes(file) + " can be read by everybody: chmod o-r it");
  std::string password;
  std::getline(std::ifstream(file), password);
  require(!password.empty(), "--password-file " + inQuotes(file) + " has an empty first line");
  return password;
}

void takeCredentials(Settings& settings, const Words& words) {
  settings.tls = settings.tls || !settings.caFile.empty();
  require(settings.certFile.empty() == settings.keyFile.empty(), "--cert and --key go together");
  require(settings.certFile.empty() || settings.tls, "--cert takes --tls or --cafile");
  requireReadable("--cafile", settings.caFile);
  requireReadable("--cert", settings.certFile);
  requireReadable("--key", settings.keyFile);
  require(words.passwordFile.empty() || !settings.user.empty(), "--password-file takes --user");
  if (!words.passwordFile.empty()) {
    settings.password = passwordIn(words.passwordFile);
  }
}

void take(Settings& settings, const Words& words) {
  takeCredentials(settings, words);
  takeBroker(settings, words.broker);
  require(!settings.exported.empty() || !words.imported.empty(),
          "there is nothing to do: name a server to export, or --import one");
  if (!settings.exported.empty()) {
    requireTopic("--prefix", settings.prefix);
  }
  for (const auto& text : words.allowed) {
    takeAllowed(settings, text);
  }
  for (const auto& text : words.imported) {
    takeImported(settings, text);
  }
  requireNoCollision(settings);
}

}  // namespace

std::optional<Settings> settingsFrom(int argc, char** argv) {
  Settings settings;
  Words words;
  CLI::App program("Carries servers of this machine over an MQTT 5 broker.", "tovik-mqtt");
  addOptions(program, settings, words);
  try {
    program.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    std::cout << program.help() << std::flush;
    return std::nullopt;
  } catch (const CLI::CallForVersion&) {
    std::cout << program.version() << std::endl;
    return std::nullopt;
  } catch (const CLI::ParseError& error) {
    refuse(tool::escaped(error.what()) + "; see tovik-mqtt --help");
  }
  take(settings, words);
  return settings;
}

}  // namespace bridge
