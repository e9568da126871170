// help: what the verbs declare, for a terminal and as the manual page's part about them.

#include "tool/Help.h"

#include <algorithm>
#include <cctype>

#include "tool/Output.h"

namespace tool {

namespace {

constexpr std::size_t kIndent = 26;

/// `text` in lines that begin at column `indent`; the first one stands where it is.
std::string wrapped(const std::string& text, std::size_t indent) {
  const std::size_t width = std::min<std::size_t>(terminalColumns(), 80);
  std::string result;
  std::size_t column = indent;
  for (const std::string& word : splitAt(text, ' ')) {
    if (column > indent && column + 1 + word.size() > width) {
      result += "\n" + std::string(indent, ' ');
      column = indent;
    }
    result += (column > indent ? " " : "") + word;
    column += (column > indent ? 1 : 0) + word.size();
  }
  return result + "\n";
}

/// A term and its explanation, side by side.
std::string entry(const std::string& term, const std::string& text) {
  const std::string head = "  " + term;
  const std::string gap = head.size() + 2 <= kIndent ? std::string(kIndent - head.size(), ' ')
                                                     : "\n" + std::string(kIndent, ' ');
  return head + gap + wrapped(text, kIndent);
}

std::string exitTable() {
  std::string text = "\nExit status:\n";
  int status = 0;
  for (const char* meaning : kExitTexts) {
    text += entry(std::to_string(status++), meaning);
  }
  return text;
}

std::string sentence(std::string text) {
  text.front() = static_cast<char>(std::toupper(text.front()));
  return text + (text.back() == '.' ? "" : ".");
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

Failure noVerb(const CLI::App& program, const std::string& word) {
  const auto verbs = verbsOf(program);
  std::vector<std::string> known(verbs.size());
  std::transform(verbs.begin(), verbs.end(), known.begin(),
                 [](const CLI::App* verb) { return verb->get_name(); });
  const std::string meant = suggestion(word, known);
  return {Exit::kUsage, inQuotes(word) + " is no verb" +
                            (meant.empty() ? "; 'tovik help' lists the verbs." : meant)};
}

std::string noOption(const CLI::App& program, const CLI::App& verb, const std::string& word) {
  std::vector<std::string> known;
  for (const CLI::App* app : {&verb, &program}) {
    for (const CLI::Option* option : optionsOf(*app)) {
      for (const std::string& name : option->get_lnames()) {
        known.push_back("--" + name);
      }
    }
  }
  return "there is no option " + inQuotes(word) + suggestion(word.substr(0, word.find('=')), known);
}

// --- the manual page ---

std::string roff(const std::string& text) {
  std::string result = text.rfind('.', 0) == 0 ? "\\&" : "";
  for (const char c : text) {
    const std::string special = c == '\\' ? "\\e" : c == '-' ? "\\-" : c == '\'' ? "\\(aq" : "";
    result += special.empty() ? std::string(1, c) : special;
  }
  return result;
}

std::string tagged(const std::string& tag, const std::string& text) {
  return ".TP\n\\fB" + roff(tag) + "\\fR\n" + roff(text) + "\n";
}

std::string manualOptions(const CLI::App& app) {
  std::string text;
  for (const CLI::Option* option : optionsOf(app)) {
    text += tagged(flagsOf(*option), option->get_description());
  }
  return text;
}

/// The sections that follow from the verbs; the others are written by hand.
std::string manual(const CLI::App& program) {
  std::string text = ".SH VERBS\n";
  for (const CLI::App* verb : verbsOf(program)) {
    std::string usage = Help().make_usage(verb, verb->get_name());
    usage = usage.substr(usage.find(' ') + 1);
    text += ".SS \"" + roff(usage.substr(0, usage.find('\n'))) + "\"\n" +
            roff(sentence(verb->get_description())) + "\n.PP\n" + roff(verb->get_footer()) + "\n" +
            manualOptions(*verb);
  }
  text += ".SH OPTIONS\nEvery verb takes these, before or behind it.\n" + manualOptions(program);
  text += ".SH EXIT STATUS\n";
  int status = 0;
  for (const char* meaning : kExitTexts) {
    text += tagged(std::to_string(status++), meaning);
  }
  return text;
}

}  // namespace

std::vector<const CLI::Option*> optionsOf(const CLI::App& app) {
  return app.get_options([](const CLI::Option* option) {
    return option->nonpositional() && !option->get_group().empty();
  });
}

std::vector<const CLI::Option*> argumentsOf(const CLI::App& app) {
  return app.get_options([](const CLI::Option* option) { return option->get_positional(); });
}

std::vector<const CLI::App*> verbsOf(const CLI::App& program) {
  return program.get_subcommands([](const CLI::App* verb) { return !verb->get_group().empty(); });
}

const CLI::App& findVerb(const CLI::App& program, const std::string& name) {
  for (const CLI::App* verb : verbsOf(program)) {
    if (verb->check_name(name)) {
      return *verb;
    }
  }
  throw noVerb(program, name);
}

bool takesValue(const CLI::Option& option) {
  return option.get_items_expected_max() > 0;
}

std::string flagsOf(const CLI::Option& option) {
  const std::string names = option.get_name(false, true);
  const std::string value = takesValue(option) ? " " + option.get_type_name() : "";
  return CLI::detail::find_and_replace(names, ",", ", ") + value;
}

std::string Help::make_help(const CLI::App* app, std::string name, CLI::AppFormatMode mode) const {
  std::string text = make_usage(app, std::move(name)) + "\n" + make_description(app);
  text += make_subcommands(app, mode) + make_groups(app, mode);
  if (app->get_parent() != nullptr) {
    return text + "\n" +
           wrapped("'tovik help' lists the options of every verb, and the exit statuses.", 0);
  }
  return text + exitTable() + "\n'tovik help VERB' and 'man tovik' say more.\n";
}

std::string Help::make_description(const CLI::App* app) const {
  const std::string text = wrapped(sentence(app->get_description()), 0);
  return text + (app->get_footer().empty() ? "" : wrapped(app->get_footer(), 0));
}

std::string Help::make_usage(const CLI::App* app, std::string name) const {
  if (app->get_parent() == nullptr) {
    return "Usage: tovik VERB [ARGUMENTS] [OPTIONS]\n";
  }
  std::string usage = "Usage: tovik " + name.substr(name.rfind(' ') + 1);
  for (const CLI::Option* argument : argumentsOf(*app)) {
    usage += " " + make_option_usage(argument);
  }
  usage += " [OPTIONS]\n";
  for (const std::string& alias : app->get_aliases()) {
    usage += "   or: tovik " + alias + " ...\n";
  }
  return usage;
}

std::string Help::make_subcommand(const CLI::App* verb) const {
  std::string name = verb->get_name();
  for (const std::string& alias : verb->get_aliases()) {
    name += ", " + alias;
  }
  return entry(name, verb->get_description());
}

std::string Help::make_option(const CLI::Option* option, bool /*positional*/) const {
  return entry(flagsOf(*option), option->get_description());
}

Failure usageFailure(const CLI::App& program, const CLI::ParseError& error) {
  const auto verbs = program.get_subcommands();
  const auto words = program.remaining(true);
  const auto isOption = [](const std::string& word) { return word.rfind('-', 0) == 0; };
  const auto option = std::find_if(words.begin(), words.end(), isOption);
  const bool extra = dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr || verbs.empty();
  const CLI::App& verb = verbs.empty() ? program : *verbs.front();
  const std::string what = !extra                  ? escaped(error.what())
                           : option != words.end() ? noOption(program, verb, *option)
                           : !verbs.empty() ? inQuotes(words.front()) + " is one argument too many"
                           : words.empty()  ? "a verb is missing"
                                            : noVerb(program, words.front()).what();
  if (what.back() == '?' || what.back() == '.') {
    return {Exit::kUsage, what};
  }
  return {Exit::kUsage, verbs.empty() ? what + "; 'tovik help' lists the verbs."
                                      : verb.get_name() + ": " + what + "; see 'tovik help " +
                                            verb.get_name() + "'."};
}

void addHelp(CLI::App& program, const Common& common) {
  struct Options {
    std::string verb;
    bool man = false;
  };
  const auto options = std::make_shared<Options>();
  const auto run = [options, &program, &common] {
    Output output(common);
    if (options->man) {
      return output.text(manual(program));
    }
    if (options->verb.empty()) {
      return output.text(Help().make_help(&program, "", CLI::AppFormatMode::Normal));
    }
    const CLI::App& asked = findVerb(program, options->verb);
    output.text(asked.help(asked.get_name()));
  };
  CLI::App& verb = addVerb(program, "help", "explains a verb, or lists them",
                           "The same as tovik VERB --help.", run);
  addArgument(verb, "VERB", options->verb, Needed::kNo);
  verb.add_flag("--man", options->man)->group("");
}

}  // namespace tool
