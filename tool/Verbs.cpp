// The table of verbs and options: the one source of the command line, the help texts, the manual
// page and the completions.

#include "tool/Verbs.h"

#include <cctype>
#include <sstream>

#include "tool/Lint.h"

namespace tool {

namespace {

using O = Options;

constexpr std::uint64_t kUint32 = 4294967295U;

const Argument kName{"NAME", &O::name, true};
const Argument kMessage{"JSON or -", &O::text, false};

const std::vector<Verb> kVerbs = {
    {"list",
     nullptr,
     {},
     "names the servers that listen on this machine",
     "The names come straight from the kernel's table of sockets: there is no registry and no "
     "daemon to ask. One name a line, sorted; bytes that do not print are shown in the notation "
     "of a shell's $'...'. With --server-uid, only that user's servers. On a terminal, --long has "
     "headings.",
     {{"--long", nullptr, &O::longForm,
       "process, user, connections, and clients waiting of how many that may wait"},
      {"--all", nullptr, &O::all,
       "also sequenced-packet servers whose names are not padded to the whole path"}},
     runList},
    {"wait",
     nullptr,
     {{"NAME...", &O::names, true}},
     "waits until each server listens",
     "Looks into the kernel's table and does not connect, so the servers notice nothing. The "
     "time-out is 5 seconds.",
     {{"--gone", nullptr, &O::gone, "wait until none of them listens"}},
     runWait},
    {"call",
     nullptr,
     {kName, kMessage},
     "sends messages and waits for each reply",
     "Sends one message, or each line of standard input as one, waits for the reply before the "
     "next, and prints its status. A line that must not be sent ends the command there; a file as "
     "standard input is looked through before anything is sent. The time-out, 5 seconds, is for "
     "each reply.",
     {{"--ok", "N", &O::okStatuses, "take status N for success (repeatable; 0 unless given)", 0,
       2147483647U},
      {"--status-only", nullptr, &O::statusOnly, "print the status as a bare number"}},
     runCall},
    {"send",
     nullptr,
     {kName, kMessage},
     "sends messages without waiting for replies",
     "Ends when the server has read all of them. The time-out, 5 seconds, is for the server to "
     "take the next one.",
     {{"--count", "N", &O::count, "send the message N times, or at most N lines", 1},
      {"--interval", "SECONDS", &O::interval, "pause between two messages"}},
     runSend},
    {"monitor",
     "subscribe",
     {kName},
     "subscribes and prints what comes",
     "Switches notifications on and prints each message, one a line. After a loss it reconnects "
     "by itself, every second, and says so on standard error; what was sent in between is lost. "
     "There is no time-out unless one is given, for the whole run.",
     {{"--count", "N", &O::count, "end after N messages", 1},
      {"--no-reconnect", nullptr, &O::noReconnect, "end when the connection is lost"},
      {"--where", "KEY=VALUE", &O::where,
       "only messages whose member KEY has that value (repeatable: all must hold)"},
      {"--timestamps", nullptr, &O::timestamps, "the time of arrival before each message"}},
     runMonitor},
    {"serve",
     nullptr,
     {kName},
     "a stand-in server to test clients against",
     "Prints each message and answers it. It is a real server, with what that means: valid JSON "
     "of the wrong shape ends its process, as it would end any server's. Admits its own user and "
     "root unless told otherwise.",
     {{"--status", "N", &O::status, "answer with status N (0 unless given)", 0, kUint32},
      {"--exec", "CMD", &O::exec,
       "run CMD in a shell for each message, which is its standard input; its exit status is the "
       "answer"},
      {"--notify", "-", &O::notify, "broadcast each line of standard input (or of a file)"},
      {"--allow-uid", "UID", &O::allowUids, "admit this user (repeatable)", 0, kUint32},
      {"--allow-gid", "GID", &O::allowGids, "admit this group (repeatable)", 0, kUint32},
      {"--deny-all", nullptr, &O::denyAll, "admit nobody"}},
     runServe},
    {"relay",
     nullptr,
     {kName, {"UPSTREAM", &O::upstream, true}},
     "stands between clients and a server and shows both directions",
     "Listens under NAME, connects to UPSTREAM for each client, and passes every record on, byte "
     "for byte. Admits its own user and root. The server sees the relay's credentials, not the "
     "clients'. The time-out, 5 seconds, is for each reply that a replay waits for.",
     {{"--record", "FILE", &O::record,
       "append every record to FILE, as JSON lines: time, direction, connection, pid, uid, text"},
      {"--replay", "FILE", &O::replay,
       "play the clients' side of a recording to UPSTREAM, wait for each recorded reply, and end; "
       "a reply with another status than recorded counts as not allowed"},
      {"--refuse-unsafe", nullptr, &O::refuseUnsafe,
       "do not pass on what would end the receiving process, or what no record carries whole"}},
     runRelay},
    {"check",
     nullptr,
     {{"FILE or -", &O::file, false}},
     "lints messages, one a line",
     "Says of each line whether it is JSON, an object, short enough for a record, a notification "
     "switch or a reply, and whether it would end a process that receives it.",
     {{"--reply", nullptr, &O::reply, "judge the lines as answers to a call"}},
     runCheck},
    {"bench",
     nullptr,
     {kName},
     "measures round trips",
     "Sends {\"pad\":\"...\"}, waits for the reply, and so on; any status counts. Prints the rate, "
     "percentiles and a histogram. The time-out, 5 seconds, is for each reply.",
     {{"--size", "BYTES", &O::size, "size of the message (64 unless given)", 10, kLargestText},
      {"--clients", "N", &O::clients, "connections at once (1 unless given)", 1, 1000},
      {"--count", "N", &O::count, "round trips in all (10000 unless given)", 1, 10000000}},
     runBench},
    {"completion",
     nullptr,
     {{"bash|zsh|fish", &O::word, true}},
     "prints the completion for a shell",
     "For example: source <(tovik completion bash). It completes the names of servers, too.",
     {},
     runCompletion},
    {"help",
     nullptr,
     {{"VERB", &O::word, false}},
     "explains a verb, or lists them",
     "The same as tovik VERB --help.",
     {{"--man", nullptr, &O::man, "print the manual page's source", 0, 0, true}},
     runHelp},
};

const std::vector<OptionInfo> kCommonOptions = {
    {"-t,--timeout", "SECONDS", &O::timeout, "time limit, 0 for ever; see each verb"},
    {"--json", "short|pretty", &O::json, "print JSON, on one line or indented"},
    {"-j", nullptr, &O::jsonByTerminal, "print JSON: pretty on a terminal, short in a pipe"},
    {"-q,--quiet", nullptr, &O::quiet, "print no results and no notices, only errors"},
    {"-v,--verbose", nullptr, &O::verbose,
     "show the library's debug channel; -vv, -vvv, -vvvv show more levels"},
    {"--server-uid", "UID", &O::serverUid, "talk only to a server of this user", 0, kUint32},
    {"--color", "auto|always|never", &O::color,
     "colour in JSON and bars; auto: on a terminal unless NO_COLOR is set"},
};

}  // namespace

const std::vector<Verb>& verbs() {
  return kVerbs;
}

const std::vector<OptionInfo>& commonOptions() {
  return kCommonOptions;
}

const Verb* findVerb(const std::string& name) {
  for (const Verb& verb : kVerbs) {
    if (name == verb.name || (verb.synonym != nullptr && name == verb.synonym)) {
      return &verb;
    }
  }
  return nullptr;
}

std::string usageOf(const Verb& verb) {
  std::string usage = std::string("tovik ") + verb.name;
  for (const Argument& argument : verb.arguments) {
    usage += argument.required ? std::string(" ") + argument.name
                               : std::string(" [") + argument.name + "]";
  }
  return usage;
}

std::string sentenceOf(const Verb& verb) {
  std::string sentence = std::string(verb.summary) + ".";
  sentence.front() = static_cast<char>(std::toupper(sentence.front()));
  return sentence;
}

std::string flagsOf(const OptionInfo& option) {
  std::string flags;
  for (const std::string& flag : splitAt(option.flags, ',')) {
    flags += (flags.empty() ? "" : ", ") + flag;
  }
  return option.value == nullptr ? flags : flags + " " + option.value;
}

std::vector<std::string> splitAt(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::istringstream stream(text);
  for (std::string part; std::getline(stream, part, separator);) {
    parts.push_back(part);
  }
  return parts;
}

}  // namespace tool
