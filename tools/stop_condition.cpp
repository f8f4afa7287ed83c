#include "stop_condition.h"

#include <atomic>
#include <csignal>
#include <cstring>

#include <CLI/CLI.hpp>
#include <unistd.h>

#include "amounts.h"

namespace tool {

namespace {

volatile std::sig_atomic_t signalCame = 0;
std::atomic<const char *> notice{nullptr}; // what the handler writes

void onSignal(int /*number*/) {
    signalCame = 1;
    const char *const text = notice.load();
    if (text != nullptr && write(STDERR_FILENO, text, std::strlen(text)) < 0)
        notice.store(nullptr);
}

} // namespace

void catchInterrupts() {
    struct sigaction action {};
    action.sa_handler = onSignal;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

bool interrupted() {
    return signalCame != 0;
}

InterruptNotice::InterruptNotice(const char *text) {
    notice.store(text);
}

InterruptNotice::~InterruptNotice() {
    notice.store(nullptr);
}

void StopCondition::addOptions(CLI::App &command) {
    command.add_option("-s,--seconds", seconds_, "End after N seconds")->check(positive());
    command.add_option("-n,--count", count_, "End after N lines")->transform(positiveCount());
}

void StopCondition::start() {
    catchInterrupts();
    begin_ = std::chrono::steady_clock::now();
}

bool StopCondition::reached(uint64_t done) const {
    return interrupted() || (count_ && done >= *count_) ||
           (seconds_ && std::chrono::steady_clock::now() - begin_ >= Seconds(*seconds_));
}

} // namespace tool
