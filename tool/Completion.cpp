// completion: scripts for three shells, made from the table of verbs. Names of servers are asked
// for when they are needed.

#include "tool/Output.h"
#include "tool/Verbs.h"

namespace tool {

namespace {

/// Long options, and the short ones where there is no long one.
std::vector<std::string> optionWords(const std::vector<OptionInfo>& options) {
  std::vector<std::string> words;
  for (const OptionInfo& option : options) {
    if (!option.hidden) {
      words.push_back(splitAt(option.flags, ',').back());
    }
  }
  return words;
}

std::string joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) {
    text += (text.empty() ? "" : " ") + word;
  }
  return text;
}

std::string verbWords() {
  std::vector<std::string> words;
  for (const Verb& verb : verbs()) {
    words.emplace_back(verb.name);
    if (verb.synonym != nullptr) {
      words.emplace_back(verb.synonym);
    }
  }
  return joined(words);
}

std::string patternOf(const Verb& verb) {
  return verb.synonym == nullptr ? verb.name : std::string(verb.name) + "|" + verb.synonym;
}

/// What a verb's arguments are completed with: "names", "files", or words.
std::string argumentsOf(const Verb& verb) {
  if (verb.arguments.empty()) {
    return "none";
  }
  const std::string first = verb.arguments.front().name;
  if (first.rfind("NAME", 0) == 0) {
    return "names";
  }
  if (first.rfind("FILE", 0) == 0) {
    return "files";
  }
  return first == "VERB" ? verbWords() : joined(splitAt(first, '|'));
}

bool takesFile(const OptionInfo& option) {
  return option.value != nullptr && std::string(option.value) == "FILE";
}

/// "--json|--color" style patterns of the options whose values are words, and those words.
std::string choiceCases() {
  std::string cases;
  for (const OptionInfo& option : commonOptions()) {
    const auto choices = splitAt(option.value == nullptr ? "" : option.value, '|');
    if (choices.size() > 1) {
      cases +=
          "    " + splitAt(option.flags, ',').back() + ") words='" + joined(choices) + "' ;;\n";
    }
  }
  return cases;
}

std::string verbCases() {
  std::string cases;
  for (const Verb& verb : verbs()) {
    cases += "    " + patternOf(verb) + ") options='" + joined(optionWords(verb.options)) +
             "' arguments='" + argumentsOf(verb) + "' ;;\n";
  }
  return cases;
}

std::string bashScript() {
  return R"sh(# bash completion for tovik
_tovik() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]}
  local verb= word words= options= arguments=')sh" +
         verbWords() + R"sh('
  [[ $previous == '=' ]] && previous=${COMP_WORDS[COMP_CWORD-2]}
  [[ $current == '=' ]] && previous=${COMP_WORDS[COMP_CWORD-1]} current=
  COMPREPLY=()
  case $previous in
)sh" + choiceCases() +
         R"sh(    --record|--replay) COMPREPLY=($(compgen -f -- "$current")); return ;;
  esac
  if [[ -n $words ]]; then
    COMPREPLY=($(compgen -W "$words" -- "$current"))
    return
  fi
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    [[ " $arguments " == *" $word "* ]] && verb=$word && break
  done
  case $verb in
)sh" + verbCases() +
         R"sh(  esac
  if [[ $current == -* ]]; then
    COMPREPLY=($(compgen -W "$options )sh" +
         joined(optionWords(commonOptions())) + R"sh( --help --version" -- "$current"))
  elif [[ $arguments == names ]]; then
    while IFS= read -r word; do
      [[ $word == "$current"* ]] && COMPREPLY+=("$(printf %q "$word")")
    done < <(tovik list 2>/dev/null)
  elif [[ $arguments == files ]]; then
    COMPREPLY=($(compgen -f -- "$current"))
  elif [[ $arguments != none ]]; then
    COMPREPLY=($(compgen -W "$arguments" -- "$current"))
  fi
}
complete -F _tovik tovik
)sh";
}

/// `text` between single quotes, as zsh and fish understand it in descriptions.
std::string described(const std::string& text) {
  std::string result;
  for (const char c : text) {
    result += std::string("'[]:\\").find(c) == std::string::npos ? std::string(1, c) : " ";
  }
  return result;
}

std::string zshOptions(const std::vector<OptionInfo>& options, const std::string& indent) {
  std::string specs;
  for (const OptionInfo& option : options) {
    if (option.hidden) {
      continue;
    }
    std::string action;
    if (option.value != nullptr) {
      const auto choices = splitAt(option.value, '|');
      action = takesFile(option)    ? ":file:_files"
               : choices.size() > 1 ? ":word:(" + joined(choices) + ")"
                                    : ":" + described(option.value) + ":";
    }
    for (const std::string& flag : splitAt(option.flags, ',')) {
      const bool equals = option.value != nullptr && flag.rfind("--", 0) == 0;
      specs += indent + "'*";
      specs += flag + (equals ? "=" : "") + "[";
      specs += described(option.text) + "]" + action + "' \\\n";
    }
  }
  return specs;
}

std::string zshScript() {
  std::string script = R"sh(#compdef tovik
# zsh completion for tovik
_tovik_names() {
  local -a names
  names=(${(f)"$(tovik list 2>/dev/null)"})
  compadd -a names
}
_tovik() {
  local verb= word verbs=')sh" +
                       verbWords() +
                       R"sh('
  local -a common
  for word in "${(@)words[2,CURRENT-1]}"; do
    [[ " $verbs " == *" $word "* ]] && verb=$word && break
  done
  common=(
)sh" + zshOptions(commonOptions(), "    ");
  script += "  )\n  case $verb in\n";
  for (const Verb& verb : verbs()) {
    const std::string arguments = argumentsOf(verb);
    const std::string action = arguments == "names"   ? "'*:name:_tovik_names'"
                               : arguments == "files" ? "'*:file:_files'"
                               : arguments == "none"  ? ""
                                                      : "'*:word:(" + arguments + ")'";
    script += "    " + patternOf(verb) + ")\n      _arguments $common '1:verb:' \\\n" +
              zshOptions(verb.options, "        ") + "        " + action + " ;;\n";
  }
  script += "    *) _arguments $common '1:verb:(" + verbWords() + ")' ;;\n  esac\n}\n";
  return script +
         "if [[ $funcstack[1] == _tovik ]]; then _tovik \"$@\"; else compdef _tovik tovik; fi\n";
}

std::string fishOptions(const std::string& condition, const std::vector<OptionInfo>& options) {
  std::string lines;
  for (const OptionInfo& option : options) {
    if (option.hidden) {
      continue;
    }
    lines += "complete -c tovik" + condition;
    for (const std::string& flag : splitAt(option.flags, ',')) {
      lines += flag.rfind("--", 0) == 0 ? " -l " + flag.substr(2) : " -s " + flag.substr(1);
    }
    if (option.value != nullptr) {
      const auto choices = splitAt(option.value, '|');
      lines += takesFile(option)    ? " -r -F"
               : choices.size() > 1 ? " -x -a '" + joined(choices) + "'"
                                    : " -x";
    }
    lines += " -d '" + described(option.text) + "'\n";
  }
  return lines;
}

std::string fishScript() {
  std::string script = "# fish completion for tovik\ncomplete -c tovik -f\n";
  script += fishOptions("", commonOptions());
  for (const Verb& verb : verbs()) {
    const std::string names = joined(splitAt(patternOf(verb), '|'));
    const std::string condition = " -n '__fish_seen_subcommand_from " + names + "'";
    script += "complete -c tovik -n __fish_use_subcommand -a '" + names + "' -d '" +
              described(verb.summary) + "'\n" + fishOptions(condition, verb.options);
    const std::string arguments = argumentsOf(verb);
    if (arguments == "names") {
      script += "complete -c tovik" + condition + " -a '(tovik list 2>/dev/null)'\n";
    } else if (arguments == "files") {
      script += "complete -c tovik" + condition + " -F\n";
    } else if (arguments != "none") {
      script += "complete -c tovik" + condition + " -a '";
      script += arguments + "'\n";
    }
  }
  return script;
}

}  // namespace

Exit runCompletion(const Options& options) {
  Output output(options);
  output.text(options.word == "bash"  ? bashScript()
              : options.word == "zsh" ? zshScript()
                                      : fishScript());
  return Exit::kSuccess;
}

}  // namespace tool
