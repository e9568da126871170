// The command line: CLI11 finds verb and options -> options take their values -> the verb takes the
// other words -> it runs.

#include "tool/Verb.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <iomanip>
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
      result += line.substr(0, at) + "\n";
      line = indent + line.substr(at + 1);
    }
    result += line + "\n";
  }
  return result;
}

std::string optionsText(const CLI::App& app) {
  CLI::Formatter formatter;
  formatter.column_width(kIndent);
  return formatter.make_groups(&app, CLI::AppFormatMode::Normal);
}

/// How many letters have to change to make one word of the other.
std::size_t distance(const std::string& from, const std::string& to) {
  std::vector<std::size_t> row(to.size() + 1);
  for (std::size_t j = 0; j <= to.size(); ++j) {
    row[j] = j;
  }
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

/// "; did you mean 'list'?" if one of the words is near.
std::string suggestion(const std::string& word, const std::vector<std::string>& known) {
  const auto nearest = std::min_element(known.begin(), known.end(), [&](auto& a, auto& b) {
    return distance(word, a) < distance(word, b);
  });
  const bool near = nearest != known.end() && distance(word, *nearest) <= 1 + word.size() / 4;
  return near ? "; did you mean '" + *nearest + "'?" : "";
}

bool isOption(const std::string& word) {
  return word.size() > 1 && word.front() == '-';
}

/// What is wrong with the words of a verb; without a name, of the program.
Failure usage(const std::string& verb, const std::string& what) {
  return {Exit::kUsage, verb.empty() ? what + "; 'tovik help' lists the verbs."
                                     : verb + ": " + what + "; see 'tovik help " + verb + "'."};
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
  return inQuotes(word) + " is no whole number from " + std::to_string(lowest) + most;
}

std::string tooLong(const std::string& name) {
  if (name.size() <= kLargestName) {
    return {};
  }
  return inQuotes(name.substr(0, 20) + "...") + " has " + std::to_string(name.size()) +
         " bytes; a name has at most " + std::to_string(kLargestName);
}

Take oneOf(const std::string& words, std::string& target) {
  return [=, &target](const std::string& word) {
    const auto known = splitAt(words, '|');
    target = word;
    return std::find(known.begin(), known.end(), word) != known.end()
               ? std::string()
               : inQuotes(word) + " is none of " + words;
  };
}

Take seconds(std::optional<double>& target) {
  return [&target](const std::string& word) {
    target = numberIn<double>(word);
    return target && std::isfinite(*target) && *target >= 0 && *target <= 1e9
               ? std::string()
               : inQuotes(word) + " is no number of seconds from 0 to 1000000000";
  };
}

Verb& Verb::alias(const std::string& name) {
  app_.alias(name);
  return *this;
}

Verb& Verb::argument(const std::string& name, Needed needed, Take take) {
  const std::size_t dots = name.find("...");
  arguments_.push_back({name.substr(0, dots), needed, dots != std::string::npos, std::move(take)});
  return *this;
}

Verb& Verb::flag(const std::string& flags, bool& target, const std::string& text) {
  app_.add_flag(flags, target, text);
  return *this;
}

Verb& Verb::flag(const std::string& flags, int& count, const std::string& text) {
  app_.add_flag(flags, count, text);
  return *this;
}

Verb& Verb::option(const std::string& flags, const std::string& value, Take take,
                   const std::string& text) {
  CLI::Option* const option = app_.add_option(flags, CLI::callback_t(), text);
  option->type_name(value)->allow_extra_args(false);
  option->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  options_.emplace_back(option, std::move(take));
  return *this;
}

std::string Verb::argumentAt(std::size_t index) const {
  const bool many = !arguments_.empty() && arguments_.back().many;
  return index < arguments_.size() ? arguments_[index].name : many ? arguments_.back().name : "";
}

std::string Verb::help() const {
  std::string usage = "Usage: tovik " + app_.get_name();
  for (const Argument& argument : arguments_) {
    const std::string name = argument.name + (argument.many ? "..." : "");
    usage += argument.needed == Needed::kYes ? " " + name : " [" + name + "]";
  }
  usage += " [OPTIONS]\n";
  for (const std::string& alias : app_.get_aliases()) {
    usage += "   or: tovik " + alias + " ...\n";
  }
  std::string summary = app_.get_description();
  summary.front() = static_cast<char>(std::toupper(summary.front()));
  return wrapped(usage + "\n" + summary + ". " + app_.get_footer() + "\n" + optionsText(app_) +
                 "\n'tovik help' lists the options of every verb, and the exit statuses.");
}

void Verb::takeOptions(const std::string& of) const {
  for (const auto& [option, take] : options_) {
    for (const std::string& word : option->results()) {
      if (const std::string wrong = take(word); !wrong.empty()) {
        throw usage(of, nameOf(*option) + ": " + wrong);
      }
    }
  }
}

void Verb::takeArguments(const std::vector<std::string>& words) const {
  auto word = words.begin();
  for (const Argument& argument : arguments_) {
    if (word == words.end() && argument.needed == Needed::kYes) {
      throw usage(app_.get_name(), argument.name + " is required");
    }
    for (bool more = word != words.end(); more; more = argument.many && word != words.end()) {
      if (const std::string wrong = argument.take(*word++); !wrong.empty()) {
        throw usage(app_.get_name(), argument.name + ": " + wrong);
      }
    }
  }
  if (word != words.end()) {
    throw usage(app_.get_name(), inQuotes(*word) + " is one argument too many");
  }
}

Program::Program()
    : app_(std::make_unique<CLI::App>("Talks to the message servers of this machine.", "tovik")),
      root_(*app_, {}) {
  app_->require_subcommand(0, 1);
  app_->allow_extras();
  addCommonOptions();
  for (const auto add :
       {addList, addPeers, addTop, addWait, addCall, addSend, addDescribe, addMonitor, addServe,
        addRelay, addReplay, addCheck, addBench, addCompletion}) {
    add(*this);
  }
  addHelp();
}

Program::~Program() = default;

void Program::addCommonOptions() {
  app_->set_help_flag("-h,--help", "explain the verb");
  app_->set_version_flag("-V,--version", "tovik " TOVIK_VERSION, "print the version");
  root_
      .option("-t,--timeout", "SECONDS", seconds(common_.timeout),
              "time limit, 0 for ever; see each verb")
      .option("--json", "short|pretty", oneOf("short|pretty", common_.json),
              "print JSON, on one line or indented")
      .flag("-j", common_.jsonByTerminal, "print JSON: pretty on a terminal, short in a pipe")
      .flag("-q,--quiet", common_.quiet, "print no results and no notices, only errors")
      .flag("-v,--verbose", common_.verbose,
            "show the library's debug channel; -vv, -vvv, -vvvv show more levels")
      .option("--server-uid", "UID", number(common_.serverUid, 0, kUint32),
              "talk only to a server of this user")
      .option("--color", "auto|always|never", oneOf("auto|always|never", common_.color),
              "colour in JSON and bars; auto: on a terminal unless NO_COLOR is set");
}

void Program::addHelp() {
  struct Options {
    std::string verb;
    bool all = false;
  };
  const auto run = [this](const Options& options, const Common& common) {
    std::string text = options.verb.empty() ? help() : "";
    for (const Verb& verb : verbs_) {
      text += options.all || verb.app().check_name(options.verb) ? verb.help() : "";
    }
    if (text.empty()) {
      throw noVerb(options.verb);
    }
    Output(common).text(text);
  };
  auto [verb, options] = this->verb<Options>("help", "explains a verb, or lists them",
                                             "The same as tovik VERB --help.", run);
  verb.argument("VERB", Needed::kNo, text(options.verb))
      .flag("--all", options.all, "explain every verb");
}

Verb& Program::add(const std::string& name, const std::string& summary, const std::string& text,
                   std::function<void()> run) {
  CLI::App* const app = app_->add_subcommand(name, summary);
  app->fallthrough();  // what every verb takes may stand behind it
  app->footer(text);
  app->group("Verbs");
  return verbs_.emplace_back(*app, std::move(run));
}

const Verb* Program::find(const std::string& name) const {
  const auto found = std::find_if(verbs_.begin(), verbs_.end(),
                                  [&](const Verb& verb) { return verb.app().check_name(name); });
  return found == verbs_.end() ? nullptr : &*found;
}

const Verb* Program::chosen() const {
  const auto parsed = app_->get_subcommands();
  return parsed.empty() ? nullptr : find(parsed.front()->get_name());
}

std::string Program::help() const {
  CLI::Formatter formatter;
  formatter.column_width(kIndent);
  std::ostringstream text;
  text << "Usage: tovik VERB [ARGUMENTS] [OPTIONS]\n\n"
       << app_->get_description() << "\n"
       << formatter.make_subcommands(app_.get(), CLI::AppFormatMode::Normal) << optionsText(*app_)
       << "\nExit status:\n";
  int status = 0;
  for (const char* meaning : kExitTexts) {
    text << "  " << std::left << std::setw(kIndent - 2) << status++ << meaning << "\n";
  }
  text << "\n'tovik help VERB' and 'man tovik' say more.";
  return wrapped(text.str());
}

Failure Program::noVerb(const std::string& word) const {
  std::vector<std::string> known;
  for (const Verb& verb : verbs_) {
    known.push_back(verb.app().get_name());
  }
  const std::string meant = suggestion(word, known);
  return meant.empty() ? usage("", inQuotes(word) + " is no verb")
                       : Failure(Exit::kUsage, inQuotes(word) + " is no verb" + meant);
}

Failure Program::noOption(const Verb* verb, const std::string& word) const {
  std::vector<std::string> known;
  for (const Verb* each : {verb, &root_}) {
    for (const CLI::Option* option :
         each == nullptr ? std::vector<const CLI::Option*>{} : optionsOf(each->app())) {
      known.push_back(nameOf(*option));
    }
  }
  const std::string what = "there is no option " + inQuotes(word);
  const std::string meant = suggestion(word.substr(0, word.find('=')), known);
  return meant.empty() ? usage(verb == nullptr ? "" : verb->app().get_name(), what)
                       : Failure(Exit::kUsage, what + meant);
}

void Program::run(int argc, char** argv) {
  try {
    parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    Output(common_).text(chosen() == nullptr ? help() : chosen()->help());
  } catch (const CLI::CallForVersion&) {
    Output(common_).line("tovik " TOVIK_VERSION);
  } catch (const CLI::ParseError& error) {
    throw usage(chosen() == nullptr ? "" : chosen()->app().get_name(), escaped(error.what()));
  }
}

/// CLI11 does not see what stands behind "--", and hands back what it does not know.
void Program::parse(int argc, char** argv) {
  const std::vector<std::string> all(argv, argv + argc);
  const auto mark = std::find(all.begin(), all.end(), "--");
  app_->parse(static_cast<int>(mark - all.begin()), argv);
  std::vector<std::string> words = app_->remaining(true);
  const auto option = std::find_if(words.begin(), words.end(), isOption);
  if (option != words.end() && (chosen() != nullptr || option == words.begin())) {
    throw noOption(chosen(), *option);
  }
  words.insert(words.end(), mark == all.end() ? mark : mark + 1, all.end());
  runChosen(words);
}

void Program::runChosen(const std::vector<std::string>& words) {
  const Verb* const verb = chosen();
  if (verb == nullptr) {
    throw words.empty() ? usage("", "a verb is missing") : noVerb(words.front());
  }
  root_.takeOptions(verb->app().get_name());
  verb->takeOptions(verb->app().get_name());
  verb->takeArguments(words);
  setQuiet(common_.quiet);
  Kelvo::Platform::setDebugLevels("Tovik", (1U << std::min(common_.verbose, 4)) - 1U);
  verb->run();
}

std::string nameOf(const CLI::Option& option) {
  const auto& names = option.get_lnames();
  return names.empty() ? "-" + option.get_snames().front() : "--" + names.front();
}

std::vector<const CLI::Option*> optionsOf(const CLI::App& app) {
  return app.get_options([](const CLI::Option*) { return true; });
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
