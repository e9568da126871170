// The command line, read by CLI11 according to the table of verbs. This is the only source that
// includes CLI11.

#include "tool/CommandLine.h"

#include <CLI/CLI.hpp>
#include <cmath>
#include <limits>
#include <type_traits>

namespace tool {

namespace {

/// CLI11 reads a word in square brackets as a list of words, and "++" as the end of something.
/// Names and messages may look so; a NUL at the end, which no word from the system contains, keeps
/// them whole.
std::vector<std::string> guardedWords(int argc, char** argv) {
  std::vector<std::string> words;
  for (int i = 1; i < argc; ++i) {
    std::string word = argv[i];
    if (word == "++" || (!word.empty() && word.front() == '[')) {
      word += '\0';
    }
    words.push_back(word);
  }
  return words;
}

/// CLI11 takes words from the back.
void parseWords(CLI::App& app, std::vector<std::string> words) {
  std::reverse(words.begin(), words.end());
  app.parse(std::move(words));
}

template <class T>
constexpr bool kIsList = false;
template <class T>
constexpr bool kIsList<std::vector<T>> = true;

double duration(const std::string& word) {
  char* end = nullptr;
  const double value = std::strtod(word.c_str(), &end);
  if (word.empty() || *end != '\0' || !std::isfinite(value) || value < 0 || value > 1e9) {
    throw CLI::ValidationError("is no number of seconds from 0 to 1000000000");
  }
  return value;
}

std::uint64_t number(const std::string& word, std::uint64_t lowest, std::uint64_t highest) {
  std::uint64_t value = 0;
  const bool digits = word.find_first_not_of("0123456789") == std::string::npos;
  if (!digits || !CLI::detail::lexical_cast(word, value) || value < lowest || value > highest) {
    const std::string most = highest == UINT64_MAX ? "" : " to " + std::to_string(highest);
    throw CLI::ValidationError("is no whole number from " + std::to_string(lowest) + most);
  }
  return value;
}

/// Puts one word where the option wants it.
struct Store {
  Options& options;
  std::string word;
  std::uint64_t lowest;
  std::uint64_t highest;

  void operator()(bool Options::*) const {}
  void operator()(int Options::*) const {}
  void operator()(std::optional<double> Options::*field) const { options.*field = duration(word); }
  void operator()(std::optional<std::uint64_t> Options::*field) const {
    options.*field = number(word, lowest, highest);
  }
  void operator()(std::string Options::*field) const { options.*field = word; }
  void operator()(std::vector<std::string> Options::*field) const {
    (options.*field).push_back(word);
  }
  void operator()(std::vector<std::uint64_t> Options::*field) const {
    (options.*field).push_back(number(word, lowest, highest));
  }
};

bool takesMany(const Field& field) {
  return std::visit(
      [](auto member) { return kIsList<std::decay_t<decltype(std::declval<Options>().*member)>>; },
      field);
}

bool isOneOf(const std::string& choices, const std::string& word) {
  const auto all = splitAt(choices, '|');
  return std::find(all.begin(), all.end(), word) != all.end();
}

/// Hands every word of an option to `Store`; what that says against a word becomes a sentence.
CLI::Option* addWords(CLI::App& app, const std::string& flags, const std::string& label,
                      Store store, const Field& field) {
  const std::string choices = label.find('|') == std::string::npos ? "" : label;
  auto take = [=](const CLI::results_t& words) mutable {
    for (const std::string& word : words) {
      store.word = word.substr(0, word.find('\0'));  // without the guard
      try {
        if (!choices.empty() && !isOneOf(choices, store.word)) {
          throw CLI::ValidationError("is none of " + choices);
        }
        std::visit(store, field);
      } catch (const CLI::ValidationError& error) {
        throw CLI::ValidationError(inQuotes(store.word) + " for " + flags + " " + error.what());
      }
    }
    return true;
  };
  CLI::Option* const option = app.add_option(flags, std::move(take));
  if (takesMany(field)) {
    const bool positional = flags.front() != '-';
    option->expected(1, positional ? CLI::detail::expected_max_vector_size : 1);
    option->allow_extra_args(positional);
    option->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  }
  return option;
}

void addOption(CLI::App& app, const OptionInfo& info, Options& options) {
  if (const auto* flag = std::get_if<bool Options::*>(&info.field)) {
    app.add_flag(info.flags, options.**flag);
  } else if (const auto* counter = std::get_if<int Options::*>(&info.field)) {
    app.add_flag(info.flags, options.**counter);
  } else {
    addWords(app, info.flags, info.value, Store{options, {}, info.lowest, info.highest},
             info.field);
  }
}

/// "NAME" for "NAME..." and "JSON" for "JSON or -": what CLI11 can call an argument.
std::string plainName(const std::string& name) {
  return name.find('|') != std::string::npos ? "SHELL" : name.substr(0, name.find_first_of(" ."));
}

void addCommonOptions(CLI::App& app, Options& options) {
  app.set_help_flag();
  app.add_flag("-h,--help");
  app.add_flag("-V,--version");
  for (const OptionInfo& option : commonOptions()) {
    addOption(app, option, options);
  }
}

void addVerb(CLI::App& app, const Verb& verb, Options& options) {
  for (const Argument& argument : verb.arguments) {
    addWords(app, plainName(argument.name), argument.name, Store{options, {}, 0, UINT64_MAX},
             argument.field);
  }
  for (const OptionInfo& option : verb.options) {
    addOption(app, option, options);
  }
}

/// Required arguments are looked for here, so that asking for help needs none.
void requireArguments(const Verb& verb, const CLI::App& app) {
  for (const Argument& argument : verb.arguments) {
    if (argument.required && app.get_option(plainName(argument.name))->count() == 0) {
      throw CLI::RequiredError(argument.name);
    }
  }
}

void requireShortName(const std::string& name) {
  if (name.size() > kLargestName) {
    throw Failure(Exit::kUsage, "the name " + inQuotes(name.substr(0, 20) + "...") + " has " +
                                    std::to_string(name.size()) + " bytes; choose one of at most " +
                                    std::to_string(kLargestName) + ".");
  }
}

Failure usageFailure(const CLI::ParseError& error, const Verb* verb) {
  std::string what = error.what();
  what = escaped(what.substr(0, what.find_first_of('\n')));
  if (what.rfind("The ", 0) == 0) {
    what.front() = 't';
  }
  if (const std::size_t colon = what.find(": 1 required"); colon != std::string::npos) {
    what = what.substr(0, colon) + " needs a value";
  }
  const std::string name = verb == nullptr ? "" : verb->name;
  return {Exit::kUsage, (name.empty() ? "" : name + ": ") + what + "; see 'tovik help" +
                            (name.empty() ? "" : " " + name) + "'."};
}

std::string askedText(const CLI::App& app, const Verb* verb) {
  if (app.count("--version") > 0) {
    return "tovik " TOVIK_VERSION "\n";
  }
  if (app.count("--help") > 0) {
    return verb == nullptr ? helpText() : helpText(*verb);
  }
  return {};
}

/// Common options may stand before the verb: everything up to it is read here, the rest is
/// returned. The two halves are read apart, since a server may well have the name of a verb.
std::vector<std::string> parseUpToVerb(std::vector<std::string> words, Command& command) {
  CLI::App app;
  addCommonOptions(app, command.options);
  app.prefix_command();
  parseWords(app, std::move(words));
  command.text = askedText(app, nullptr);
  auto rest = app.remaining();
  if (!rest.empty()) {
    command.verb = findVerb(rest.front());
  }
  if (command.text.empty() && command.verb == nullptr) {
    const std::string what =
        rest.empty() ? "a verb is missing" : inQuotes(rest.front().c_str()) + " is no verb";
    throw Failure(Exit::kUsage, what + "; 'tovik help' lists the verbs.");
  }
  return rest;
}

void parseVerb(std::vector<std::string> words, Command& command) {
  CLI::App app;
  addCommonOptions(app, command.options);
  addVerb(app, *command.verb, command.options);
  words.erase(words.begin());
  parseWords(app, std::move(words));
  command.text = askedText(app, command.verb);
  if (command.text.empty()) {
    requireArguments(*command.verb, app);
  }
}

}  // namespace

Command parseCommandLine(int argc, char** argv) {
  Command command;
  try {
    const auto rest = parseUpToVerb(guardedWords(argc, argv), command);
    if (command.text.empty()) {
      parseVerb(rest, command);
    }
  } catch (const CLI::ParseError& error) {
    throw usageFailure(error, command.verb);
  }
  requireShortName(command.options.name);
  requireShortName(command.options.upstream);
  for (const std::string& name : command.options.names) {
    requireShortName(name);
  }
  return command;
}

}  // namespace tool
