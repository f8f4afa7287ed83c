#pragma once

#include <string>
#include <vector>

namespace tool {

// Whether a process, by its name in /proc, has a device's node open.
bool hasNodeOpen(const std::string &process, const std::string &node);

// The other processes that have it open, as far as this user may see, such as "4711 (recorder)".
std::vector<std::string> otherUsersOf(const std::string &node);

} // namespace tool
