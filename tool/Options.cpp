#include "tool/Options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <cmath>
#include <sstream>

#include "tool/Report.h"

namespace tool {

namespace {

/// Ends a word that CLI11 would take for a list. No word from the system holds it by chance: it
/// would be an odd name.
constexpr char kGuard = '\x01';

void unguard(CLI::Option& option) {
  const auto cut = [](std::string& word) {
    word.resize(word.size() - (!word.empty() && word.back() == kGuard ? 1 : 0));
    return std::string();
  };
  option.transform(CLI::Validator(cut, ""));
}

/// The whole word as a number, or nothing. Unlike strtod and its kin, this takes neither blanks nor
/// other bases nor more than fits.
template <class T>
std::optional<T> numberIn(const std::string& word) {
  T value{};
  const char* const end = word.data() + word.size();
  const auto [stop, error] = std::from_chars(word.data(), end, value);
  return error == std::errc() && stop == end ? std::optional<T>(value) : std::nullopt;
}

std::string tooLong(const std::string& name) {
  if (name.size() <= kLargestName) {
    return {};
  }
  return inQuotes(name.substr(0, 20) + "...") + " has " + std::to_string(name.size()) +
         " bytes; a name has at most " + std::to_string(kLargestName);
}

std::string notSeconds(const std::string& word) {
  const auto value = numberIn<double>(word);
  if (value && std::isfinite(*value) && *value >= 0 && *value <= 1e9) {
    return {};
  }
  return inQuotes(word) + " is no number of seconds from 0 to 1000000000";
}

std::string notWhole(const std::string& word, std::uint64_t lowest, std::uint64_t highest) {
  const auto value = numberIn<std::uint64_t>(word);
  if (value && *value >= lowest && *value <= highest) {
    return {};
  }
  const std::string most = highest == UINT64_MAX ? "" : " to " + std::to_string(highest);
  return inQuotes(word) + " is no whole number from " + std::to_string(lowest) + most;
}

/// An option with a value, which `check` finds nothing wrong with.
template <class T>
void checked(CLI::App& verb, const std::string& flags, T& target, const std::string& value,
             const std::string& text, const std::function<std::string(const std::string&)>& check) {
  CLI::Option* const option = verb.add_option(flags, target, text);
  option->type_name(value)->allow_extra_args(false);
  if (check) {
    option->check(check);
  }
  unguard(*option);
}

}  // namespace

CLI::App& addVerb(CLI::App& program, const std::string& name, const std::string& summary,
                  const std::string& text, std::function<void()> run) {
  CLI::App* const verb = program.add_subcommand(name, summary);
  verb->fallthrough();  // what every verb takes may stand behind it
  verb->footer(text);
  verb->group("Verbs");
  verb->callback(std::move(run));
  return *verb;
}

void addAlias(CLI::App& verb, const std::string& alias) {
  verb.alias(alias);
}

std::vector<std::string> guarded(int argc, char** argv) {
  std::vector<std::string> words(argv + 1, argv + std::max(argc, 1));
  for (std::string& word : words) {
    if (word.size() > 1 && word.front() == '[' && word.back() == ']') {
      word += kGuard;
    }
  }
  std::reverse(words.begin(), words.end());  // as CLI11 wants them
  return words;
}

void addName(CLI::App& verb, std::string& name, const std::string& as) {
  CLI::Option* const option = verb.add_option(as, name);
  unguard(*option->required()->check(tooLong));
}

void addNames(CLI::App& verb, std::vector<std::string>& names, Needed needed) {
  CLI::Option* const option = verb.add_option(kName, names);
  unguard(*option->required(needed == Needed::kYes)->check(tooLong));
}

void addMessage(CLI::App& verb, std::string& text) {
  addArgument(verb, "JSON", text, Needed::kNo);
}

void addArgument(CLI::App& verb, const std::string& name, std::string& target, Needed needed) {
  unguard(*verb.add_option(name, target)->required(needed == Needed::kYes));
}

void addFlag(CLI::App& verb, const std::string& flags, bool& target, const std::string& text) {
  verb.add_flag(flags, target, text);
}

void addFlag(CLI::App& verb, const std::string& flags, int& count, const std::string& text) {
  verb.add_flag(flags, count, text);
}

template <class T>
void addValue(CLI::App& verb, const std::string& flags, T& target, const std::string& value,
              const std::string& text) {
  checked(verb, flags, target, value, text, {});
}

template <class T>
void addNumber(CLI::App& verb, const std::string& flags, T& target, const std::string& value,
               std::uint64_t lowest, std::uint64_t highest, const std::string& text) {
  checked(verb, flags, target, value, text,
          [=](const std::string& word) { return notWhole(word, lowest, highest); });
}

void addChoice(CLI::App& verb, const std::string& flags, std::string& target,
               const std::string& words, const std::string& text) {
  const auto choices = splitAt(words, '|');
  checked(verb, flags, target, words, text, [=](const std::string& word) {
    const bool known = std::find(choices.begin(), choices.end(), word) != choices.end();
    return known ? std::string() : inQuotes(word) + " is none of " + words;
  });
}

void addSeconds(CLI::App& verb, const std::string& flags, std::optional<double>& target,
                const std::string& text) {
  checked(verb, flags, target, "SECONDS", text, notSeconds);
}

template void addValue(CLI::App&, const std::string&, std::string&, const std::string&,
                       const std::string&);
template void addValue(CLI::App&, const std::string&, std::vector<std::string>&, const std::string&,
                       const std::string&);
template void addNumber(CLI::App&, const std::string&, std::uint32_t&, const std::string&,
                        std::uint64_t, std::uint64_t, const std::string&);
template void addNumber(CLI::App&, const std::string&, std::uint64_t&, const std::string&,
                        std::uint64_t, std::uint64_t, const std::string&);
template void addNumber(CLI::App&, const std::string&, std::optional<std::uint64_t>&,
                        const std::string&, std::uint64_t, std::uint64_t, const std::string&);
template void addNumber(CLI::App&, const std::string&, std::vector<std::uint32_t>&,
                        const std::string&, std::uint64_t, std::uint64_t, const std::string&);

std::vector<std::string> splitAt(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::istringstream stream(text);
  for (std::string part; std::getline(stream, part, separator);) {
    parts.push_back(part);
  }
  return parts;
}

}  // namespace tool
