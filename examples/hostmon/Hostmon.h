#pragma once

#include <string>
#include <vector>

// hostmon: a small service that watches its host.
//
// It publishes the host's load, free memory and uptime at an interval (a second, at first), as
// events of the topic "host", and has two commands:
//
//     {"command":"interval","seconds":2}    sets the interval, from 0.1 s to an hour
//     {"command":"get","value":"load"}      its result is a number; also "memory" (available, in
//                                           MiB) and "uptime" (in seconds)

namespace Hostmon {

// The three faces of the program; each returns its exit status.
int serve(const std::string& name);
int call(const std::string& name, const std::vector<std::string>& commands);
int watch(const std::string& name);

/// Runs this thread's event loop until SIGINT or SIGTERM.
void runUntilSignalled();

}  // namespace Hostmon
