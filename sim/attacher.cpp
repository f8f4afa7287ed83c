#include "attacher.h"

#include <array>
#include <chrono>
#include <cstring>

#include <fmt/format.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace sim {

namespace {

constexpr std::chrono::milliseconds kPollInterval{10};
constexpr std::chrono::milliseconds kRetryInterval{200};
constexpr int kMostFailures = 10;

void reportFailure(const std::string &busId, const std::string &reason) {
    fmt::print(stderr,
               "vexa-usb-sim: cannot attach {}: {}\n"
               "  Attaching needs root, the package usbip, and the module vhci-hcd "
               "(modprobe vhci-hcd).\n",
               busId, reason);
}

} // namespace

void Attacher::attach(const std::string &busId) {
    waiting.push_back(busId);
    if (waiting.size() == 1)
        startNext();
}

// The client asks this very process for the device, so it must not be waited for here.
void Attacher::startNext() {
    std::array<std::string, 8> words{"usbip",  "--tcp-port",   std::to_string(port),
                                     "attach", "-r",           "127.0.0.1",
                                     "-b",     waiting.front()};
    std::array<char *, words.size() + 1> arguments{};
    for (size_t i = 0; i < words.size(); ++i)
        arguments[i] = words[i].data();
    pid_t process = 0;
    const int error = posix_spawnp(&process, "usbip", nullptr, nullptr, arguments.data(), environ);
    if (error == 0) {
        awaitEnd(process);
        return;
    }
    reportFailure(waiting.front(), std::strerror(error));
    finished();
}

void Attacher::awaitEnd(pid_t process) {
    int status = 0;
    if (waitpid(process, &status, WNOHANG) == 0) {
        loop.after(kPollInterval, [this, process]() { awaitEnd(process); });
        return;
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0)
        finished();
    else
        retry();
}

// The client fails when it looks at a device that the kernel is just setting up or taking down.
void Attacher::retry() {
    if (++failures < kMostFailures) {
        loop.after(kRetryInterval, [this]() { startNext(); });
        return;
    }
    reportFailure(waiting.front(), "the usbip client failed");
    finished();
}

void Attacher::finished() {
    failures = 0;
    waiting.pop_front();
    if (!waiting.empty())
        startNext();
}

} // namespace sim
