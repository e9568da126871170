#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tool/Common.h"

namespace CLI {
class App;
}  // namespace CLI

namespace tool {

// How verbs declare themselves. A verb is a subcommand; its options live in a structure that what
// runs it shares. What completion offers follows from the names of values: NAME is a server's, FILE
// a file's, "a|b" are words. Verbs need not know CLI11 for this, which takes long to compile.

constexpr const char* kName = "NAME";
constexpr const char* kFile = "FILE";
constexpr std::uint64_t kUint32 = UINT32_MAX;
/// The largest name that an address has room for.
constexpr std::size_t kLargestName = 106;

/// A new verb. The summary says what it does; the text what else there is to know.
CLI::App& addVerb(CLI::App& program, const std::string& name, const std::string& summary,
                  const std::string& text, std::function<void()> run);
void addAlias(CLI::App& verb, const std::string& alias);

enum class Needed { kNo, kYes };

/// An argument that is the name of a server; or several of them.
void addName(CLI::App& verb, std::string& name, const std::string& as = kName);
void addNames(CLI::App& verb, std::vector<std::string>& names, Needed needed);
/// The message on the command line, or "-".
void addMessage(CLI::App& verb, std::string& text);
/// Any other argument.
void addArgument(CLI::App& verb, const std::string& name, std::string& target, Needed needed);

void addFlag(CLI::App& verb, const std::string& flags, bool& target, const std::string& text);
void addFlag(CLI::App& verb, const std::string& flags, int& count, const std::string& text);

/// An option with any text as its value; a list may be given repeatedly.
template <class T>
void addValue(CLI::App& verb, const std::string& flags, T& target, const std::string& value,
              const std::string& text);
/// A whole number in decimal digits.
template <class T>
void addNumber(CLI::App& verb, const std::string& flags, T& target, const std::string& value,
               std::uint64_t lowest, std::uint64_t highest, const std::string& text);
/// One of the words of "a|b|c".
void addChoice(CLI::App& verb, const std::string& flags, std::string& target,
               const std::string& words, const std::string& text);
void addSeconds(CLI::App& verb, const std::string& flags, std::optional<double>& target,
                const std::string& text);

/// The words of the command line, as CLI11 takes them from a program. It reads a word in square
/// brackets as a list of words; names and messages may look so, and stay whole by this.
std::vector<std::string> guarded(int argc, char** argv);

std::vector<std::string> splitAt(const std::string& text, char separator);

// The verbs, each in the source of its name.
void addList(CLI::App& program, const Common& common);
void addWait(CLI::App& program, const Common& common);
void addCall(CLI::App& program, const Common& common);
void addSend(CLI::App& program, const Common& common);
void addMonitor(CLI::App& program, const Common& common);
void addServe(CLI::App& program, const Common& common);
void addRelay(CLI::App& program, const Common& common);
void addReplay(CLI::App& program, const Common& common);
void addCheck(CLI::App& program, const Common& common);
void addPeers(CLI::App& program, const Common& common);
void addTop(CLI::App& program, const Common& common);
void addDescribe(CLI::App& program, const Common& common);
void addBench(CLI::App& program, const Common& common);
void addCompletion(CLI::App& program, const Common& common);
void addHelp(CLI::App& program, const Common& common);

}  // namespace tool
