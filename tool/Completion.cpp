// completion: short scripts for three shells. They ask `tovik complete` what may stand where the
// cursor is, so they know every verb and option of the program that is installed.

#include <CLI/CLI.hpp>
#include <cstddef>
#include <set>
#include <string>
#include <vector>

#include "tool/Kernel.h"
#include "tool/Output.h"
#include "tool/Verb.h"

namespace tool {

namespace {

constexpr const char* kBash = R"sh(# bash completion for tovik
_tovik() {
  local line file cur=$2 words=() i
  for ((i = 0; i <= COMP_CWORD; i++)); do # a word ends where the shell's own ends, but at '='
    if [[ ${COMP_WORDS[i]} == '=' || (i -gt 0 && ${COMP_WORDS[i-1]} == '=') ]]; then
      words[-1]+=${COMP_WORDS[i]}
    else
      words+=("${COMP_WORDS[i]}")
    fi
  done
  [[ $cur == '=' ]] && cur=
  COMPREPLY=()
  while IFS= read -r line; do
    if [[ $line == :files ]]; then
      compopt -o filenames 2>/dev/null
      while IFS= read -r file; do COMPREPLY+=("$file"); done < <(compgen -f -- "$cur")
    else
      COMPREPLY+=("$(printf %q "${line%%$'\t'*}")")
    fi
  done < <(tovik complete "${words[@]}" 2>/dev/null)
}
complete -F _tovik tovik
)sh";

constexpr const char* kZsh = R"sh(#compdef tovik
# zsh completion for tovik
_tovik() {
  local line word
  local -a found described
  for line in "${(@f)$(tovik complete "${(@Q)words[1,CURRENT]}" 2>/dev/null)}"; do
    [[ -n $line ]] || continue
    if [[ $line == :files ]]; then
      compset -P '--*='
      _files
      continue
    fi
    word=${line%%$'\t'*}
    found+=("$word")
    described+=("${line/$'\t'/  -- }")
  done
  compset -P '--*='
  (( $#found )) && compadd -l -d described -a found
}
if [[ $funcstack[1] == _tovik ]]; then _tovik "$@"; else compdef _tovik tovik; fi
)sh";

constexpr const char* kFish = R"sh(# fish completion for tovik
function __tovik
    for line in (tovik complete (commandline -opc) (commandline -ct) 2>/dev/null)
        if test "$line" = :files
            __fish_complete_path (commandline -ct | string replace -r -- '^--[^=]*=' '')
        else
            echo $line
        end
    end
end
complete -c tovik -f -a '(__tovik)'
)sh";

/// Follows the line up to the cursor.
class Completion {
 public:
  Completion(const CLI::App& program, const std::vector<std::string>& words)
      : program_(program), current_(words.empty() ? "" : words.back()) {
    for (std::size_t i = 1; i + 1 < words.size(); ++i) {
      take(words[i]);
    }
  }

  void offerAll() {
    const bool option = !onlyArguments_ && current_.rfind('-', 0) == 0;
    const std::size_t equals =
        current_.rfind("--", 0) == 0 ? current_.find('=') : std::string::npos;
    if (!pending_.empty()) {
      offerValues(pending_);
    } else if (option && equals != std::string::npos) {
      const std::string value = valueOf(current_.substr(0, equals));
      current_.erase(0, equals + 1);
      offerValues(value);
    } else if (option) {
      for (const CLI::Option* each : optionsOf(program_, verb_)) {
        offer(each->get_name(), each->get_description());
      }
    } else {
      offerValues(verb_ == nullptr ? "VERB" : nextArgument());
    }
  }

 private:
  void take(const std::string& word) {
    if (!pending_.empty()) {
      pending_.clear();
    } else if (word == "--" && !onlyArguments_) {
      onlyArguments_ = true;
    } else if (!onlyArguments_ && word.rfind('-', 0) == 0 && word != "-") {
      pending_ = valueOf(word);
    } else if (verb_ == nullptr) {
      for (const CLI::App* verb : program_.get_subcommands({})) {
        verb_ = verb->check_name(word) ? verb : verb_;
      }
    } else {
      ++arguments_;
    }
  }

  std::string nextArgument() const {
    const auto all = argumentsOf(*verb_);
    const bool many = !all.empty() && all.back()->get_expected_min() > 1;
    return arguments_ < all.size() ? all[arguments_]->get_name()
           : many                  ? all.back()->get_name()
                                   : "";
  }

  /// What the option's value is called; empty for a flag.
  std::string valueOf(const std::string& flag) const {
    for (const CLI::Option* option : optionsOf(program_, verb_)) {
      if (option->check_name(flag) && option->get_items_expected_max() > 0) {
        return option->get_type_name();
      }
    }
    return {};
  }

  void offer(const std::string& word, const std::string& text = {}) {
    const std::string line = text.empty() ? word : word + "\t" + text;
    if (word.rfind(current_, 0) == 0 && offered_.insert(line).second) {
      printLine(line);
    }
  }

  void offerValues(const std::string& kind) {
    if (kind == kFile) {
      printLine(":files");
    } else if (kind == "VERB") {
      for (const CLI::App* verb : program_.get_subcommands({})) {
        offer(verb->get_name(), verb->get_description());
        for (const std::string& alias : verb->get_aliases()) {
          offer(alias, verb->get_description());
        }
      }
    } else if (kind == kName || kind == "UPSTREAM") {
      for (const Listener& listener : kernelTable(false).listeners) {
        offer(escaped(listener.name));
      }
    } else if (kind.find('|') != std::string::npos) {
      for (const std::string& word : splitAt(kind, '|')) {
        offer(word);
      }
    }
  }

  const CLI::App& program_;
  std::string current_;
  const CLI::App* verb_ = nullptr;
  std::string pending_;  // what the value is called that comes next
  std::size_t arguments_ = 0;
  bool onlyArguments_ = false;
  std::set<std::string> offered_;
};

void printCompletion(const std::string& shell) {
  printText(shell == "bash" ? kBash : shell == "zsh" ? kZsh : kFish);
}

}  // namespace

void printCompletions(const CLI::App& program, const std::vector<std::string>& words) {
  Completion(program, words).offerAll();
}

void addCompletion(CLI::App& program) {
  auto [verb, shell] = addVerb(program, "completion", "prints the completion for a shell",
                               "For example: source <(tovik completion bash).", printCompletion);
  verb.argument("bash|zsh|fish", oneOf("bash|zsh|fish", shell));
}

}  // namespace tool
