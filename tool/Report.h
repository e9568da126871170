#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace tool {

/// The exit statuses, the same for every verb. Scripts rely on them.
enum class Exit {
  kSuccess = 0,
  kStatus = 1,
  kUsage = 2,
  kNoServer = 3,
  kTimeout = 4,
  kLost = 5,
  kNotUnderstood = 6,
  kOutput = 7,
};

/// What each exit status means, in their order.
constexpr const char* kExitTexts[] = {
    "success",
    "the server answered with a status that is not allowed",
    "wrong usage, or a message that must not be sent; nothing of it was sent",
    "no server listens under the name",
    "the time-out has passed",
    "the connection was lost or refused before an answer",
    "an answer that is not understood",
    "the results could not be written",
};

/// Ends the command: one sentence that says what to do next, and the status to exit with. Thrown
/// from anywhere, out of the event loop's callbacks too; `main` reports it.
class Failure : public std::runtime_error {
 public:
  Failure(Exit status, const std::string& sentence) : runtime_error(sentence), status_(status) {}
  Exit status() const noexcept { return status_; }

 private:
  Exit status_;
};

Failure noServer(std::string_view name);

/// Thrown where results are written and nobody reads them any more.
struct OutputClosed {};

/// Writes "tovik: " and the sentence to standard error.
void report(std::string_view sentence);

/// The text with everything that does not print, or not as itself, (and the backslash) in the
/// notation of a shell's $'...': no name or message can play with a terminal, or look like another
/// one by invisible characters or a change of direction. Other UTF-8 stays as it is.
std::string escaped(std::string_view text);

/// `escaped`, in quotation marks.
std::string inQuotes(std::string_view text);

/// The UTF-8 character that `text` begins with, and its length in bytes: 0 if it is flawed.
std::pair<std::uint32_t, std::size_t> decoded(std::string_view text);

/// The number of bytes of the UTF-8 character that `text` begins with; 0 if there is none, or one
/// that does not show as itself.
std::size_t printableLength(std::string_view text);

/// "1 message", "2 messages".
std::string counted(std::uint64_t number, const std::string& noun);

/// With one decimal.
std::string rounded(double value);

/// "0.5 s", "5 s".
std::string secondsText(double value);

/// How many columns of a terminal the text takes.
std::size_t displayWidth(std::string_view text);

/// The beginning of the text, as much as fits into the columns.
std::string fitting(std::string_view text, std::size_t columns);

/// The terminal's width, of standard output or standard error; 80 without one.
std::size_t terminalColumns();

}  // namespace tool
