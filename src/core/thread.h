#pragma once

#include <functional>
#include <string>
#include <thread>

namespace vexausb {

// Gives the calling thread the first 15 characters of the name; an empty one changes nothing.
void setThreadName(const std::string &name);

// Starts a thread of the library under that name.  From its first instruction on it blocks all
// signals, so that they reach only the program's own threads, except those that report a fault of
// the thread itself, such as SIGSEGV.
std::thread startThread(std::string name, std::function<void()> body);

} // namespace vexausb
