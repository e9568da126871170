// completion: short scripts for three shells. They ask `tovik complete` what may stand where the
// cursor is, so they know every verb and option of the program that is installed.

#include "tool/Help.h"
#include "tool/Kernel.h"
#include "tool/Output.h"

namespace tool {

namespace {

// The program prints one candidate a line, with its explanation behind a tab; ":files" leaves it to
// the shell to complete the name of a file.

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

class Completion {
 public:
  Completion(const CLI::App& program, std::vector<std::string> words)
      : program_(program), current_(words.empty() ? "" : words.back()) {
    for (std::size_t i = 1; i + 1 < words.size(); ++i) {
      take(words[i]);
    }
  }

  /// What may stand at the place of the last word.
  std::vector<std::string> candidates() {
    if (pending_ != nullptr) {
      offerValues(pending_->get_type_name());
    } else if (const std::size_t equals = current_.find('=');
               !onlyArguments_ && current_.rfind("--", 0) == 0 && equals != std::string::npos) {
      const CLI::Option* const option = find(current_.substr(0, equals));
      current_.erase(0, equals + 1);
      offerValues(option == nullptr ? "" : option->get_type_name());
    } else if (!onlyArguments_ && current_.rfind('-', 0) == 0) {
      offerOptions();
    } else if (verb_ == nullptr) {
      offerVerbs();
    } else {
      offerArgument();
    }
    return std::move(found_);
  }

 private:
  /// Follows the line up to the cursor.
  void take(const std::string& word) {
    if (pending_ != nullptr) {
      pending_ = nullptr;
    } else if (word == "--" && !onlyArguments_) {
      onlyArguments_ = true;
    } else if (!onlyArguments_ && word.rfind('-', 0) == 0 && word != "-") {
      const CLI::Option* const option = find(word);
      pending_ = option != nullptr && takesValue(*option) ? option : nullptr;
    } else if (verb_ == nullptr) {
      for (const CLI::App* verb : verbsOf(program_)) {
        verb_ = verb->check_name(word) ? verb : verb_;
      }
    } else {
      ++arguments_;
    }
  }

  const CLI::Option* find(const std::string& flag) const {
    for (const CLI::App* app : {verb_, &program_}) {
      for (const CLI::Option* option :
           app == nullptr ? std::vector<const CLI::Option*>{} : optionsOf(*app)) {
        if (option->check_name(flag)) {
          return option;
        }
      }
    }
    return nullptr;
  }

  void offer(const std::string& word, const std::string& text = {}) {
    if (word.rfind(current_, 0) == 0) {
      found_.push_back(text.empty() ? word : word + "\t" + text);
    }
  }

  void offerVerbs() {
    for (const CLI::App* verb : verbsOf(program_)) {
      offer(verb->get_name(), verb->get_description());
      for (const std::string& alias : verb->get_aliases()) {
        offer(alias, verb->get_description());
      }
    }
  }

  void offerOptions() {
    for (const CLI::App* app : {verb_, &program_}) {
      for (const CLI::Option* option :
           app == nullptr ? std::vector<const CLI::Option*>{} : optionsOf(*app)) {
        const auto& names = option->get_lnames();
        offer(names.empty() ? "-" + option->get_snames().front() : "--" + names.front(),
              option->get_description());
      }
    }
  }

  void offerArgument() {
    const auto arguments = argumentsOf(*verb_);
    const bool many = !arguments.empty() && arguments.back()->get_expected_max() > 1;
    if (arguments_ < arguments.size() || many) {
      const auto at = std::min(arguments_, arguments.size() - 1);
      offerValues(arguments[at]->get_name(true, false));
    }
  }

  void offerValues(const std::string& kind) {
    if (kind == kFile) {
      found_.emplace_back(":files");
    } else if (kind == "VERB") {
      offerVerbs();
    } else if (kind == kName || kind == "UPSTREAM") {
      for (const Listener& listener : listeners(false)) {
        offer(escaped(listener.name));
      }
    } else if (kind == "SHELL" || kind.find('|') != std::string::npos) {
      for (const std::string& word : splitAt(kind == "SHELL" ? "bash|zsh|fish" : kind, '|')) {
        offer(word);
      }
    }
  }

  const CLI::App& program_;
  std::string current_;
  const CLI::App* verb_ = nullptr;
  const CLI::Option* pending_ = nullptr;  // waits for its value
  std::size_t arguments_ = 0;
  bool onlyArguments_ = false;
  std::vector<std::string> found_;
};

void addComplete(CLI::App& program, const Common& common) {
  CLI::App* const verb = program.add_subcommand("complete")->group("");
  verb->prefix_command();
  verb->callback([verb, &program, &common] {
    Output output(common);
    for (const std::string& line : Completion(program, verb->remaining()).candidates()) {
      output.line(line);
    }
  });
}

}  // namespace

void addCompletion(CLI::App& program, const Common& common) {
  const auto shell = std::make_shared<std::string>();
  CLI::App& verb =
      addVerb(program, "completion", "prints the completion for a shell",
              "For example: source <(tovik completion bash).", [shell, &common] {
                Output(common).text(*shell == "bash" ? kBash : *shell == "zsh" ? kZsh : kFish);
              });
  addChoice(verb, "SHELL", *shell, "bash|zsh|fish", "");
  verb.get_option("SHELL")->required();
  addComplete(program, common);
}

}  // namespace tool
