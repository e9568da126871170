// The command line: CLI11 tells verbs, options and words apart and hands each word to its `Take` ->
// the verb runs. And what is said to somebody who has mistyped something, or asks.

#include "tool/Verb.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <iomanip>
#include <numeric>
#include <sstream>
#include <string_view>

#include "Kelvo/Platform/Debug.h"
#include "tool/Output.h"
#include "tool/Report.h"

namespace tool {

namespace {

constexpr std::size_t kIndent = 26;
constexpr std::size_t kWidest = 72;

/// The whole word as a number, or nothing. Unlike strtod and its kin, this takes neither blanks nor
/// other bases nor more than fits.
template <class T>
std::optional<T> numberIn(const std::string& word) {
  T value{};
  const char* const end = word.data() + word.size();
  const auto [stop, error] = std::from_chars(word.data(), end, value);
  return error == std::errc() && stop == end ? std::optional<T>(value) : std::nullopt;
}

/// Breaks lines that are wider than the terminal: where entries of lists go on, explanations begin.
std::string wrapped(const std::string& text) {
  const std::size_t width = std::max(std::min(terminalColumns(), kWidest), kIndent + 10);
  std::string result;
  for (std::string line : splitAt(text, '\n')) {
    const std::string indent(line.rfind("  ", 0) == 0 ? kIndent : 0, ' ');
    while (line.size() > width) {
      const std::size_t at = line.rfind(' ', width);
      if (at == std::string::npos || at <= indent.size()) {
        break;
      }
      result.append(line, 0, at).append("\n");
      line.replace(0, at + 1, indent);
    }
    result += line + "\n";
  }
  return result;
}

CLI::Formatter formatter() {
  CLI::Formatter formatter;
  formatter.column_width(kIndent);
  return formatter;
}

std::string helpOf(const CLI::App& verb) {
  std::string usage = "Usage: tovik " + verb.get_name();
  for (const CLI::Option* argument : argumentsOf(verb)) {
    usage += " " + argument->get_description();
  }
  usage += " [OPTIONS]\n";
  for (const std::string& alias : verb.get_aliases()) {
    usage += "   or: tovik " + alias + " ...\n";
  }
  std::string summary = verb.get_description();
  summary.front() = static_cast<char>(std::toupper(summary.front()));
  return wrapped(usage + "\n" + summary + ". " + verb.get_footer() + "\n" +
                 formatter().make_groups(&verb, CLI::AppFormatMode::Normal) +
                 "\n'tovik help' lists the options of every verb, and the exit statuses.");
}

std::string helpOfProgram(const CLI::App& program) {
  std::ostringstream text;
  text << "Usage: tovik VERB [ARGUMENTS] [OPTIONS]\n\n"
       << program.get_description() << "\n"
       << formatter().make_subcommands(&program, CLI::AppFormatMode::Normal)
       << formatter().make_groups(&program, CLI::AppFormatMode::Normal) << "\nExit status:\n";
  int status = 0;
  for (const char* meaning : kExitTexts) {
    text << "  " << std::left << std::setw(kIndent - 2) << status++ << meaning << "\n";
  }
  text << "\n'tovik help VERB' and 'man tovik' say more.";
  return wrapped(text.str());
}

/// How many letters have to change to make one word of the other.
std::size_t distance(const std::string& from, const std::string& to) {
  std::vector<std::size_t> row(to.size() + 1);
  std::iota(row.begin(), row.end(), 0);
  for (std::size_t i = 1; i <= from.size(); ++i) {
    std::size_t diagonal = std::exchange(row[0], i);
    for (std::size_t j = 1; j <= to.size(); ++j) {
      const std::size_t replaced = diagonal + (from[i - 1] == to[j - 1] ? 0 : 1);
      diagonal = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, replaced});
    }
  }
  return row.back();
}

/// What is wrong, and what to do about it: take the word that was meant if one is near, or read.
Failure usage(const CLI::App* verb, const std::string& what, const std::string& word = {},
              const std::vector<std::string>& known = {}) {
  const auto nearest = std::min_element(known.begin(), known.end(), [&](auto& a, auto& b) {
    return distance(word, a) < distance(word, b);
  });
  if (nearest != known.end() && distance(word, *nearest) <= 1 + word.size() / 4) {
    return {Exit::kUsage, what + "; did you mean '" + *nearest + "'?"};
  }
  return {Exit::kUsage, verb == nullptr ? what + "; 'tovik help' lists the verbs."
                                        : verb->get_name() + ": " + what + "; see 'tovik help " +
                                              verb->get_name() + "'."};
}

Failure noVerb(const CLI::App& program, const std::string& word) {
  std::vector<std::string> known;
  for (const CLI::App* verb : program.get_subcommands({})) {
    known.push_back(verb->get_name());
  }
  return usage(nullptr, inQuotes(word) + " is no verb", word, known);
}

Failure noOption(const CLI::App& program, const CLI::App* verb, const std::string& word) {
  std::vector<std::string> known;
  for (const CLI::Option* option : optionsOf(program, verb)) {
    known.push_back(option->get_name());
  }
  return usage(verb, "there is no option " + inQuotes(word), word.substr(0, word.find('=')), known);
}

const CLI::App* chosenVerb(const CLI::App& program) {
  const auto parsed = program.get_subcommands();
  return parsed.empty() ? nullptr : parsed.front();
}

/// What is wrong with a command line that CLI11 refuses, the words that nobody takes first.
Failure refusal(const CLI::App& program, const CLI::ParseError& error) {
  const CLI::App* const verb = chosenVerb(program);
  std::vector<std::string> words = program.remaining(true);
  words.erase(std::remove(words.begin(), words.end(), "--"), words.end());
  const auto option = std::find_if(words.begin(), words.end(), [](const std::string& word) {
    return word.size() > 1 && word.front() == '-';
  });
  if (option != words.end() && (verb != nullptr || option == words.begin())) {
    return noOption(program, verb, *option);
  }
  if (verb == nullptr && !words.empty()) {
    return noVerb(program, words.front());
  }
  const bool tooMany = error.get_exit_code() == static_cast<int>(CLI::ExitCodes::ExtrasError);
  return usage(verb, tooMany ? inQuotes(words.front()) + " is one argument too many"
                             : escaped(error.what()));
}

void addCommonOptions(CLI::App& program) {
  program.set_help_flag("-h,--help", "explain the verb");
  program.set_version_flag("-V,--version", "tovik " TOVIK_VERSION, "print the version");
  Verb(program)
      .option("-t,--timeout", "SECONDS", seconds(common.timeout),
              "time limit, 0 for ever; see each verb")
      .option("--json", "short|pretty", oneOf("short|pretty", common.json),
              "print JSON, on one line or indented")
      .flag("-j", common.jsonByTerminal, "print JSON: pretty on a terminal, short in a pipe")
      .flag("-q,--quiet", common.quiet, "print no results and no notices, only errors");
  program.add_flag_function(
      "-v,--verbose",
      [](std::int64_t count) {
        const auto levels = static_cast<unsigned>(std::clamp<std::int64_t>(count, 0, 4));
        Kelvo::Platform::setDebugLevels("Tovik", (1U << levels) - 1U);
      },
      "show the library's debug channel; -vv, -vvv, -vvvv show more levels");
  Verb(program)
      .option("--server-uid", "UID", number(common.serverUid, 0, kUint32),
              "talk only to a server of this user")
      .option("--color", "auto|always|never", oneOf("auto|always|never", common.color),
              "colour in JSON and bars; auto: on a terminal unless NO_COLOR is set");
}

struct HelpOptions {
  std::string verb;
  bool all = false;
};

void addHelp(CLI::App& program) {
  const auto options = std::make_shared<HelpOptions>();
  const auto help = [options, &program] {
    std::string text = options->verb.empty() ? helpOfProgram(program) : "";
    for (const CLI::App* verb : program.get_subcommands({})) {
      text += options->all || verb->check_name(options->verb) ? helpOf(*verb) : "";
    }
    if (text.empty()) {
      throw noVerb(program, options->verb);
    }
    printText(text);
  };
  addVerb(program, "help", "explains a verb, or lists them", "The same as tovik VERB --help.", help)
      .argument("[VERB]", text(options->verb))
      .flag("--all", options->all, "explain every verb");
}

}  // namespace

std::string notWhole(const std::string& word, std::uint64_t lowest, std::uint64_t highest,
                     std::uint64_t& value) {
  const auto found = numberIn<std::uint64_t>(word);
  value = found.value_or(0);
  if (found && value >= lowest && value <= highest) {
    return {};
  }
  const std::string most = highest == UINT64_MAX ? "" : " to " + std::to_string(highest);
  return "'" + word + "' is no whole number from " + std::to_string(lowest) + most;
}

std::string tooLong(const std::string& name) {
  if (name.size() <= kLargestName) {
    return {};
  }
  return "'" + name.substr(0, 20) + "...' has " + std::to_string(name.size()) +
         " bytes; a name has at most " + std::to_string(kLargestName);
}

Take oneOf(const std::string& words, std::string& target) {
  return [=, &target](const std::string& word) {
    const auto known = splitAt(words, '|');
    target = word;
    return std::find(known.begin(), known.end(), word) != known.end()
               ? std::string()
               : "'" + word + "' is none of " + words;
  };
}

Take seconds(std::optional<double>& target) {
  return [&target](const std::string& word) {
    target = numberIn<double>(word);
    return target && std::isfinite(*target) && *target >= 0 && *target <= 1e9
               ? std::string()
               : "'" + word + "' is no number of seconds from 0 to 1000000000";
  };
}

Verb& Verb::alias(const std::string& name) {
  app_.alias(name);
  return *this;
}

Verb& Verb::argument(const std::string& usage, const Take& take) {
  constexpr int kAllThatAreLeft = 1 << 20;
  const std::size_t begin = usage.front() == '[' ? 1 : 0;
  CLI::Option* const option = app_.add_option(
      usage.substr(begin, usage.find_first_of(".]") - begin), CLI::callback_t(), usage);
  option->required(begin == 0)->check(take)->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  option->expected(usage.find("...") == std::string::npos ? 1 : kAllThatAreLeft);
  return *this;
}

Verb& Verb::flag(const std::string& flags, bool& target, const std::string& text) {
  app_.add_flag(flags, target, text);
  return *this;
}

Verb& Verb::option(const std::string& flags, const std::string& value, const Take& take,
                   const std::string& text) {
  CLI::Option* const option = app_.add_option(flags, CLI::callback_t(), text);
  option->type_name(value)->check(take)->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  return *this;
}

Verb addVerb(CLI::App& program, const std::string& name, const std::string& summary,
             const std::string& text, std::function<void()> run) {
  CLI::App* const app = program.add_subcommand(name, summary);
  app->fallthrough();  // what every verb takes may stand behind it
  app->footer(text)->group("Verbs");
  app->callback(std::move(run));
  return Verb(*app);
}

std::vector<const CLI::Option*> argumentsOf(const CLI::App& verb) {
  return verb.get_options([](const CLI::Option* option) { return option->get_positional(); });
}

std::vector<const CLI::Option*> optionsOf(const CLI::App& program, const CLI::App* verb) {
  std::vector<const CLI::Option*> options;
  for (const CLI::App* app : {verb == nullptr ? &program : verb, &program}) {
    const auto found =
        app->get_options([](const CLI::Option* option) { return option->nonpositional(); });
    options.insert(options.end(), found.begin(), found.end());
  }
  return options;
}

std::vector<std::string> splitAt(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::istringstream stream(text);
  for (std::string part; std::getline(stream, part, separator);) {
    parts.push_back(part);
  }
  return parts;
}

void runProgram(int argc, char** argv) {
  CLI::App program("Talks to the message servers of this machine.", "tovik");
  program.require_subcommand(0, 1);
  addCommonOptions(program);
  for (const auto add :
       {addList, addPeers, addTop, addWait, addCall, addSend, addDescribe, addMonitor, addServe,
        addRelay, addReplay, addCheck, addBench, addCompletion, addHelp}) {
    add(program);
  }
  if (argc > 1 && argv[1] == std::string_view("complete")) {  // asked by the shells' scripts
    return printCompletions(program, {argv + 2, argv + argc});
  }
  try {
    program.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    const CLI::App* const verb = chosenVerb(program);
    return printText(verb == nullptr ? helpOfProgram(program) : helpOf(*verb));
  } catch (const CLI::CallForVersion& version) {
    return printLine(version.what());
  } catch (const CLI::ParseError& error) {
    throw refusal(program, error);
  }
  if (chosenVerb(program) == nullptr) {
    throw usage(nullptr, "a verb is missing");
  }
}

}  // namespace tool
