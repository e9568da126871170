// The manual page, made from the table of verbs.

#include "tool/Verbs.h"

namespace tool {

namespace {

/// Text for roff: hyphens and backslashes as such, and no line that begins like a request.
std::string roff(const std::string& text) {
  std::string result;
  for (const char c : text) {
    if (c == '\\') {
      result += "\\e";
    } else if (c == '-') {
      result += "\\-";
    } else if (c == '\'') {
      result += "\\(aq";
    } else {
      result += c;
    }
  }
  return result.rfind('.', 0) == 0 ? "\\&" + result : result;
}

std::string paragraph(const std::string& text) {
  return ".PP\n" + roff(text) + "\n";
}

std::string tagged(const std::string& tag, const std::string& text) {
  return ".TP\n.B \"" + roff(tag) + "\"\n" + roff(text) + "\n";
}

std::string optionEntries(const std::vector<OptionInfo>& options) {
  std::string text;
  for (const OptionInfo& option : options) {
    text += option.hidden ? "" : tagged(flagsOf(option), option.text);
  }
  return text;
}

std::string verbEntry(const Verb& verb) {
  std::string text = ".SS \"" + roff(usageOf(verb)) + "\"\n" + roff(sentenceOf(verb)) + "\n";
  if (verb.synonym != nullptr) {
    text += "Also called\n.BR " + std::string(verb.synonym) + " .\n";
  }
  return text + paragraph(verb.text) + optionEntries(verb.options);
}

struct Example {
  const char* command;
  const char* text;
};

constexpr Example kExamples[] = {
    {"tovik list --long", "Who listens here, in which process, and who waits to be let in."},
    {R"(tovik wait lamp && tovik call lamp '{"state":"on"}')",
     "Call a server as soon as it is up."},
    {"tovik check messages && tovik call lamp - <messages",
     "Send each line of a file and wait for each reply."},
    {"tovik monitor lamp --where state=on --timestamps", "Watch until Ctrl-C."},
    {"tovik serve lamp --exec 'jq -e .state'",
     "A server whose answers are the exit statuses of a command."},
    {"tovik relay lamp lamp.real --refuse-unsafe --record talk",
     "Stand in front of a server, and note down what is said."},
    {"socat - ABSTRACT-CONNECT:lamp,type=5,unix-tightsocklen=0",
     "The same protocol without this command."},
};

std::string examples() {
  std::string text;
  for (const Example& example : kExamples) {
    text += tagged(example.command, example.text);
  }
  return text;
}

std::string exitStatuses() {
  std::string text;
  int status = 0;
  for (const char* meaning : kExitTexts) {
    text += tagged(std::to_string(status++), meaning);
  }
  return text;
}

}  // namespace

std::string manualPage() {
  std::string page = ".TH TOVIK 1 \"\" \"Tovik " TOVIK_VERSION
                     "\" \"User Commands\"\n"
                     ".SH NAME\ntovik \\- talk to the message servers of this machine\n"
                     ".SH SYNOPSIS\n.B tovik\n.I VERB\n[\\fIARGUMENTS\\fR] [\\fIOPTIONS\\fR]\n"
                     ".SH DESCRIPTION\n";
  page += roff(
              "Servers listen under names on sequenced-packet sockets in the abstract namespace. "
              "Each message is one JSON object in one record of at most 4094 bytes; each may be "
              "answered by a reply, which has a status. tovik finds the servers, calls them, "
              "watches them, stands in for them and stands between.") +
          "\n";
  page += paragraph(
      "Results go to standard output, each at once, all else to standard error. "
      "Names have at most 106 bytes. What is no object, is too long, or would end "
      "the server's process is not sent.");
  page += paragraph(
      "Ctrl-C ends every verb cleanly: monitor, serve and relay are then done and "
      "exit with 0, others end by the signal, as shells expect.");
  page += ".SH VERBS\n";
  for (const Verb& verb : verbs()) {
    page += verbEntry(verb);
  }
  page += ".SH OPTIONS\nThese mean the same with every verb.\n" + optionEntries(commonOptions()) +
          tagged("-h, --help", "explain the verb") + tagged("-V, --version", "print the version");
  page += ".SH EXIT STATUS\n" + exitStatuses();
  page += ".SH ENVIRONMENT\n" + tagged("NO_COLOR", "if set, --color=auto means never");
  page += ".SH EXAMPLES\n" + examples();
  return page + ".SH SEE ALSO\n.BR busctl (1),\n.BR socat (1),\n.BR ss (8),\n.BR unix (7)\n";
}

}  // namespace tool
