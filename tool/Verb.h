#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
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
  int verbose = 0;
  bool quiet = false;

  double timeLimit(double unlessGiven = 5) const { return timeout.value_or(unlessGiven); }
};

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

enum class Needed { kNo, kYes };

/// A verb: a subcommand with its options, and what runs it. CLI11 tells verbs and options apart;
/// arguments and values reach their `Take` as they were typed, since it would read some of them as
/// lists.
class Verb {
 public:
  Verb(CLI::App& app, std::function<void()> run) : app_(app), run_(std::move(run)) {}

  Verb& alias(const std::string& name);
  /// One that is called "NAME..." takes all words that are left.
  Verb& argument(const std::string& name, Needed needed, Take take);
  Verb& flag(const std::string& flags, bool& target, const std::string& text);
  Verb& flag(const std::string& flags, int& count, const std::string& text);
  Verb& option(const std::string& flags, const std::string& value, Take take,
               const std::string& text);

  const CLI::App& app() const { return app_; }
  /// What completes an argument or an option's value at that place; empty if nothing does.
  std::string argumentAt(std::size_t index) const;
  /// How the verb is written, and everything else there is to say of it.
  std::string help() const;

  void takeOptions(const std::string& of) const;
  void takeArguments(const std::vector<std::string>& words) const;
  void run() const { run_(); }

 private:
  struct Argument {
    std::string name;
    Needed needed;
    bool many;
    Take take;
  };

  CLI::App& app_;
  std::function<void()> run_;
  std::vector<Argument> arguments_;
  std::vector<std::pair<CLI::Option*, Take>> options_;
};

/// The command line: what every verb takes, and the verbs.
class Program {
 public:
  Program();
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;
  ~Program();

  /// A new verb. The summary says what it does; the text what else there is to know. The
  /// function gets the options, which live until it has returned, and what every verb takes.
  template <class Options, class Function>
  std::pair<Verb&, Options&> verb(const std::string& name, const std::string& summary,
                                  const std::string& text, Function function) {
    const auto options = std::make_shared<Options>();
    return {add(name, summary, text, [=] { function(*options, common_); }), *options};
  }

  void run(int argc, char** argv);

  const Verb& root() const { return root_; }
  const std::list<Verb>& verbs() const { return verbs_; }
  /// The verb of that name, or null.
  const Verb* find(const std::string& name) const;

 private:
  Verb& add(const std::string& name, const std::string& summary, const std::string& text,
            std::function<void()> run);
  void addCommonOptions();
  void addHelp();
  void parse(int argc, char** argv);
  void runChosen(const std::vector<std::string>& words);
  const Verb* chosen() const;
  std::string help() const;
  Failure noVerb(const std::string& word) const;
  Failure noOption(const Verb* verb, const std::string& word) const;

  Common common_;
  const std::unique_ptr<CLI::App> app_;
  Verb root_;
  std::list<Verb> verbs_;
};

/// How an option is written first: "--timeout".
std::string nameOf(const CLI::Option& option);
/// The options of an application.
std::vector<const CLI::Option*> optionsOf(const CLI::App& app);
std::vector<std::string> splitAt(const std::string& text, char separator);

/// What may stand at the place of the last word: a candidate a line, with its explanation behind a
/// tab; ":files" leaves it to the shell to complete the name of a file.
std::vector<std::string> completions(const Program& program, const std::vector<std::string>& words);

// The verbs, each in the source of its name.
void addList(Program& program);
void addPeers(Program& program);
void addTop(Program& program);
void addWait(Program& program);
void addCall(Program& program);
void addSend(Program& program);
void addDescribe(Program& program);
void addMonitor(Program& program);
void addServe(Program& program);
void addRelay(Program& program);
void addReplay(Program& program);
void addCheck(Program& program);
void addBench(Program& program);
void addCompletion(Program& program);

}  // namespace tool
