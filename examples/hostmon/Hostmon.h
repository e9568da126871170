#pragma once

#include <string>
#include <vector>

// hostmon: a small service that watches its host.
//
// The server broadcasts the host's load, free memory and uptime at an interval (a second, at
// first). It understands two commands:
//
//     {"command":"interval","seconds":2}    sets the interval; answered with a status
//     {"command":"get","value":"load"}      answered with {"type":"value","load":0.25}; also
//     "memory"
//                                           (available, in MiB) and "uptime" (in seconds)
//
// and answers what it cannot do with one of these statuses.

namespace Hostmon {

enum Status : unsigned { kDone = 0, kUnknownCommand = 1, kBadArgument = 2 };

// The three faces of the program; each returns its exit status.
int serve(const std::string& name, bool rootOnly);
int call(const std::string& name, const std::vector<std::string>& commands);
int watch(const std::string& name);

/// Runs this thread's event loop until SIGINT or SIGTERM.
void runUntilSignalled();

}  // namespace Hostmon
