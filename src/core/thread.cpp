#include "core/thread.h"

#include <array>
#include <csignal>
#include <utility>

#include <pthread.h>

namespace vexausb {

namespace {

// Blocks signals while it exists.  A new thread inherits the signal mask of the thread that starts
// it, so the mask is set before the start, not in the new thread.
//
// Signals that report a thread's own fault stay unblocked.  If they were blocked, a fault would end
// the process without the crash handler, or the language runtime, that handles them.
class BlockSignals {
public:
    BlockSignals() {
        sigset_t blocked;
        sigfillset(&blocked);
        for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS})
            sigdelset(&blocked, fault);
        pthread_sigmask(SIG_SETMASK, &blocked, &before_);
    }
    ~BlockSignals() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    BlockSignals(const BlockSignals &) = delete;
    BlockSignals &operator=(const BlockSignals &) = delete;

private:
    sigset_t before_{};
};

} // namespace

void setThreadName(const std::string &name) {
    if (name.empty())
        return;
    std::array<char, 16> buffer{}; // the longest name, with its terminator
    name.copy(buffer.data(), buffer.size() - 1);
    pthread_setname_np(pthread_self(), buffer.data());
}

CancellationLater::CancellationLater() {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_);
}

CancellationLater::~CancellationLater() {
    pthread_setcancelstate(before_, nullptr);
}

std::thread startThread(std::string name, std::function<void()> body) {
    const BlockSignals blocked;
    return std::thread([name = std::move(name), body = std::move(body)]() {
        setThreadName(name);
        body();
    });
}

} // namespace vexausb
