#pragma once

#include <functional>
#include <string>
#include <thread>

namespace vexausb {

// Gives the calling thread the first 15 characters of the name; an empty one changes nothing.
void setThreadName(const std::string &name);

// While it exists, the thread that made it is not cancelled: unwinding through libusb would leave
// its locks held for ever.  A cancellation that is asked for meanwhile takes effect afterwards.
class CancellationLater {
public:
    CancellationLater();
    ~CancellationLater();
    CancellationLater(const CancellationLater &) = delete;
    CancellationLater &operator=(const CancellationLater &) = delete;

private:
    int before_ = 0;
};

// Starts a thread of the library under that name.  From its first instruction on it blocks all
// signals, so that they reach only the program's own threads, except those that report a fault of
// the thread itself, such as SIGSEGV.
std::thread startThread(std::string name, std::function<void()> body);

} // namespace vexausb
