#pragma once

#include <string>
#include <variant>
#include <vector>

#include "tool/Options.h"
#include "tool/Report.h"

namespace tool {

/// Where in `Options` a value goes; its type says how it is read. A bool is a flag, an int counts
/// its flag.
using Field =
    std::variant<bool Options::*, int Options::*, std::optional<double> Options::*,
                 std::optional<std::uint64_t> Options::*, std::string Options::*,
                 std::vector<std::string> Options::*, std::vector<std::uint64_t> Options::*>;

struct OptionInfo {
  const char* flags;  // "-t,--timeout"
  const char* value;  // "SECONDS"; "a|b" for a choice; null for a flag
  Field field;
  const char* text;
  std::uint64_t lowest = 0;
  std::uint64_t highest = UINT64_MAX;
  bool hidden = false;
};

struct Argument {
  const char* name;
  Field field;
  bool required;
};

/// One verb: its row in the help, the manual and the completions, and the code behind it.
struct Verb {
  const char* name;
  const char* synonym;  // or null
  std::vector<Argument> arguments;
  const char* summary;
  const char* text;
  std::vector<OptionInfo> options;
  Exit (*run)(const Options&);
};

const std::vector<Verb>& verbs();
const std::vector<OptionInfo>& commonOptions();

/// The verb of that name or synonym, or null.
const Verb* findVerb(const std::string& name);

// How the table reads.
std::string usageOf(const Verb& verb);
/// The summary as a sentence of its own.
std::string sentenceOf(const Verb& verb);
std::string flagsOf(const OptionInfo& option);
std::vector<std::string> splitAt(const std::string& text, char separator);

// The verbs, each in the source of its name.
Exit runList(const Options&);
Exit runWait(const Options&);
Exit runCall(const Options&);
Exit runSend(const Options&);
Exit runMonitor(const Options&);
Exit runServe(const Options&);
Exit runRelay(const Options&);
Exit runCheck(const Options&);
Exit runBench(const Options&);
Exit runCompletion(const Options&);
Exit runHelp(const Options&);

// What the table is printed as.
std::string helpText();
std::string helpText(const Verb& verb);
std::string manualPage();

}  // namespace tool
