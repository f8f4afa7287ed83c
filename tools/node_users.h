#pragma once

#include <string>
#include <vector>

namespace tool {

// Whether a process has a device's node open; `process` is its directory in /proc, such as self.
bool hasNodeOpen(const std::string &process, const std::string &node);

// The other processes that have it open, such as "4711 (recorder)". Root sees those of all users.
std::vector<std::string> otherUsersOf(const std::string &node);

} // namespace tool
