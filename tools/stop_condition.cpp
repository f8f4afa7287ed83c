#include "stop_condition.h"

#include <csignal>

#include <CLI/CLI.hpp>

#include "amounts.h"

namespace tool {

namespace {

volatile std::sig_atomic_t signalCame = 0;

} // namespace

void catchInterrupts() {
    struct sigaction action {};
    action.sa_handler = [](int) { signalCame = 1; };
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

bool interrupted() {
    return signalCame != 0;
}

void StopCondition::addOptions(CLI::App &command) {
    command.add_option("-s,--seconds", seconds_, "End after N seconds")->check(positive());
    command.add_option("-n,--count", count_, "End after N lines")->check(positiveCount());
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
