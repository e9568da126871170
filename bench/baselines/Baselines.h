#pragma once

#include <string>

#include "bench/support/Driven.h"

namespace Bench {

// The roles of the program of baselines. Names are those of abstract sockets.

void serveBytes(const std::string& name);  // (i) blocking, bytes only
void driveBytes(const std::string& name);
void serveJson(const std::string& name);  // (ii) blocking, with the JSON work
void driveJson(const std::string& name);
void serveEpoll(const std::string& name);  // (iii) many clients, with the JSON work
void driveEpoll(const std::string& name);  // one client that waits with epoll
void driveCrowd(const std::string& name);  // many raw clients, of (iii) or of the library

}  // namespace Bench
