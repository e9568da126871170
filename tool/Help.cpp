// help: the table of verbs, for a terminal of 80 columns.

#include "tool/Output.h"
#include "tool/Verbs.h"

namespace tool {

namespace {

constexpr std::size_t kWidth = 80;
constexpr std::size_t kIndent = 26;

/// `text` in lines that begin at column `indent`; the first one stands where it is.
std::string wrapped(const std::string& text, std::size_t indent) {
  std::string result;
  std::size_t column = indent;
  for (const std::string& word : splitAt(text, ' ')) {
    if (column > indent && column + 1 + word.size() > kWidth) {
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

std::string entries(const std::vector<OptionInfo>& options) {
  std::string text;
  for (const OptionInfo& option : options) {
    text += option.hidden ? "" : entry(flagsOf(option), option.text);
  }
  return text;
}

std::string exitTable() {
  std::string text;
  int status = 0;
  for (const char* meaning : kExitTexts) {
    text += entry(std::to_string(status++), meaning);
  }
  return text;
}

std::string listed(const char* heading, const std::string& text) {
  return text.empty() ? "" : "\n" + std::string(heading) + ":\n" + text;
}

const std::string kCommonHelp =
    entry("-h, --help", "explain the verb") + entry("-V, --version", "print the version");

}  // namespace

std::string helpText() {
  std::string text =
      "Usage: tovik VERB [ARGUMENTS] [OPTIONS]\n\n"
      "Talks to the message servers of this machine.\n\nVerbs:\n";
  for (const Verb& verb : verbs()) {
    const std::string also = verb.synonym == nullptr ? "" : std::string(", ") + verb.synonym;
    text += entry(verb.name + also, verb.summary);
  }
  text += listed("Options, for every verb", entries(commonOptions()) + kCommonHelp);
  text += listed("Exit status", exitTable());
  return text + "\n'tovik help VERB' and 'man tovik' say more.\n";
}

std::string helpText(const Verb& verb) {
  std::string text = "Usage: " + usageOf(verb) + " [OPTIONS]\n";
  text += verb.synonym == nullptr ? "" : "   or: tovik " + std::string(verb.synonym) + " ...\n";
  text += "\n" + sentenceOf(verb) + "\n" + wrapped(verb.text, 0);
  text += listed("Options", entries(verb.options));
  return text + listed("Options, for every verb", entries(commonOptions()) + kCommonHelp) +
         listed("Exit status", exitTable());
}

Exit runHelp(const Options& options) {
  Output output(options);
  if (options.man) {
    output.text(manualPage());
    return Exit::kSuccess;
  }
  const Verb* const verb = findVerb(options.word);
  if (verb == nullptr && !options.word.empty()) {
    throw Failure(Exit::kUsage,
                  inQuotes(options.word) + " is no verb; 'tovik help' lists the verbs.");
  }
  output.text(verb == nullptr ? helpText() : helpText(*verb));
  return Exit::kSuccess;
}

}  // namespace tool
