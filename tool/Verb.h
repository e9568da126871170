#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tool/Report.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace tool {

/// What every verb takes.
struct Common {
  std::optional<double> timeout;  // seconds, 0 for ever; without one, the verb has its default
  std::string json;               // "short", "pretty" or none
  bool jsonByTerminal = false;
  std::string color = "auto";
  std::optional<std::uint64_t> serverUid;
  bool quiet = false;

  double timeLimit(double unlessGiven = 5) const { return timeout.value_or(unlessGiven); }
};

/// It is complete when a verb runs.
extern Common common;

/// A report that -q suppresses.
void notice(std::string_view sentence);

// What completion offers follows from what arguments and values are called: NAME is a server's,
// FILE a file's, "a|b" are words.
constexpr const char* kName = "NAME";
constexpr const char* kFile = "FILE";
constexpr std::uint64_t kUint32 = UINT32_MAX;
/// The largest name that an address has room for.
constexpr std::size_t kLargestName = 106;

/// Takes a word of the command line, and says what is wrong with it: nothing if it is empty.
using Take = std::function<std::string(const std::string& word)>;

template <class T, class Value>
void store(T& target, Value value) {
  target = static_cast<T>(std::move(value));
}
template <class T, class Value>
void store(std::vector<T>& targets, Value value) {
  targets.push_back(static_cast<T>(std::move(value)));
}

std::string notWhole(const std::string& word, std::uint64_t lowest, std::uint64_t highest,
                     std::uint64_t& value);
std::string tooLong(const std::string& name);

/// Any text; a list may be given repeatedly.
template <class T>
Take text(T& target) {
  return [&target](const std::string& word) { return store(target, word), std::string(); };
}
/// The name of a server.
template <class T>
Take name(T& target) {
  return [&target](const std::string& word) { return store(target, word), tooLong(word); };
}
/// A whole number in decimal digits.
template <class T>
Take number(T& target, std::uint64_t lowest, std::uint64_t highest) {
  return [&target, lowest, highest](const std::string& word) {
    std::uint64_t value = 0;
    const std::string wrong = notWhole(word, lowest, highest, value);
    return store(target, value), wrong;
  };
}
/// One of the words of "a|b|c".
Take oneOf(const std::string& words, std::string& target);
Take seconds(std::optional<double>& target);

/// A subcommand of CLI11's, or the program itself. Words reach their `Take` as they were typed:
/// what CLI11 would read as a list is a name like others.
class Verb {
 public:
  explicit Verb(CLI::App& app) : app_(app) {}

  Verb& alias(const std::string& name);
  /// As in usage lines: "[NAME]" may be missing, and "NAME..." takes all words that are left.
  Verb& argument(const std::string& usage, const Take& take);
  Verb& flag(const std::string& flags, bool& target, const std::string& text);
  Verb& option(const std::string& flags, const std::string& value, const Take& take,
               const std::string& text);

 private:
  CLI::App& app_;
};

/// A new verb. The summary says what it does; the text what else there is to know.
Verb addVerb(CLI::App& program, const std::string& name, const std::string& summary,
             const std::string& text, std::function<void()> run);

/// One with options, which live until it has run.
template <class Options>
std::pair<Verb, Options&> addVerb(CLI::App& program, const std::string& name,
                                  const std::string& summary, const std::string& text,
                                  void (*run)(const Options& options)) {
  const auto options = std::make_shared<Options>();
  return {addVerb(program, name, summary, text, [=] { run(*options); }), *options};
}

std::vector<const CLI::Option*> argumentsOf(const CLI::App& verb);
/// Those of the verb, unless it is null, and those that every verb takes.
std::vector<const CLI::Option*> optionsOf(const CLI::App& program, const CLI::App* verb);

/// Prints what may stand at the place of the last word: a candidate a line, with its explanation
/// behind a tab; ":files" leaves it to the shell to complete the name of a file.
void printCompletions(const CLI::App& program, const std::vector<std::string>& words);

/// Does what the command line says.
void runProgram(int argc, char** argv);

std::vector<std::string> splitAt(const std::string& text, char separator);

// The verbs, each in the source of its name.
void addList(CLI::App& program);
void addPeers(CLI::App& program);
void addTop(CLI::App& program);
void addWait(CLI::App& program);
void addCall(CLI::App& program);
void addSend(CLI::App& program);
void addDescribe(CLI::App& program);
void addMonitor(CLI::App& program);
void addServe(CLI::App& program);
void addRelay(CLI::App& program);
void addReplay(CLI::App& program);
void addCheck(CLI::App& program);
void addBench(CLI::App& program);
void addCompletion(CLI::App& program);

}  // namespace tool
