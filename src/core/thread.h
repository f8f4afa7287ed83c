#pragma once

#include <functional>
#include <string>
#include <thread>

namespace vexausb {

// Names the calling thread with at most the first 15 characters; an empty name changes nothing.
void setThreadName(const std::string &name);

// Starts a thread of the library: named, and from its first instruction on with every signal
// blocked but those that report a fault of the thread itself, so that signals reach the caller's
// own threads only.
std::thread startThread(std::string name, std::function<void()> body);

} // namespace vexausb
