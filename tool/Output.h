#pragma once

#include <string>
#include <string_view>

#include "tool/Json.h"
#include "tool/Verb.h"

namespace tool {

// Results, on standard output: each is written whole and at once. What prints throws
// `OutputClosed` if nobody reads any more, and a failure if what is read cannot be written.

/// As it is, unless -q.
void printText(std::string_view text);
/// The same with a line end.
void printLine(std::string_view line);
/// JSON in the style that the options ask for: on one line unless pretty, with its numbers as they
/// are written.
void printJson(std::string_view json, const std::string& prefix = {});
void printJson(const Tovik::Message& message);
/// The same for one that came from somewhere, with the time and so on: inside an object for JSON,
/// before it otherwise. Nothing of it if the head is empty.
void printJson(const Tovik::Message& head, const std::string& prefix, std::string_view json);

/// True when results are to be JSON.
bool wantsJson();
bool onTerminal();

/// The text in a terminal's colours if they are wanted; `colour` is "32" for green and so on.
std::string painted(const std::string& text, const char* colour);

/// A text as one cell: blanks inside it, or nothing at all, must not look like missing columns.
std::string cell(std::string_view text);

/// The wall clock in UTC: 2030-01-31T12:00:00.000000Z.
std::string timestamp();

}  // namespace tool
