#include "attacher.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>

#include <fmt/format.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "vhci_ports.h"

namespace sim {

namespace {

constexpr std::chrono::milliseconds kPollInterval{10};
constexpr std::chrono::milliseconds kRetryInterval{200};
constexpr int kMaxFailures = 10;
// After a second it is another server's device that has the same name.
constexpr int kMaxPostponed = 100;
constexpr const char *kController = "/sys/devices/platform/vhci_hcd.0/attach";

[[noreturn]] void fail(const std::string &reason) {
    throw std::runtime_error("cannot attach devices: " + reason);
}

// Collects the client's output, which is shown only if the client fails.
int openOutput(const std::string &host) {
    if (access(kController, F_OK) != 0)
        fail("the kernel's virtual host controller is unavailable; as root: modprobe vhci-hcd");
    if (access(kController, W_OK) != 0)
        fail(fmt::format("this needs root; run vexa-usb-sim --attach as root, or without --attach "
                         "and, as root, usbip attach -r {} -b 1-1",
                         host));
    return memfd_create("usbip", MFD_CLOEXEC);
}

} // namespace

Attacher::Attacher(EventLoop &loop, const Connection::Devices &devices, const ListenAddress &server)
    : loop_(loop),
      devices_(devices),
      host_(server.localHost()),
      port_(server.port()),
      output_(openOutput(host_)) {}

Attacher::~Attacher() {
    close(output_);
}

void Attacher::attach(const ExportedDevice &device) {
    waiting_.push_back(&device);
    if (waiting_.size() == 1)
        startNext();
}

// The client asks this process for the device, so nothing may wait for the client here.
void Attacher::startNext() {
    if (portsHoldDepartedDevices(devices_) && ++postponed_ < kMaxPostponed) {
        loop_.after(kPollInterval, [this]() { startNext(); });
        return;
    }
    postponed_ = 0;
    startClient();
}

void Attacher::startClient() {
    std::array<std::string, 8> words{
        "usbip", "--tcp-port", std::to_string(port_),         "attach", "-r",
        host_,   "-b",         waiting_.front()->name().busId};
    std::array<char *, words.size() + 1> arguments{};
    for (size_t i = 0; i < words.size(); ++i)
        arguments[i] = words[i].data();
    if (ftruncate(output_, 0) != 0 || lseek(output_, 0, SEEK_SET) != 0)
        fail(std::strerror(errno));
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_adddup2(&files, output_, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&files, output_, STDERR_FILENO);
    pid_t process = 0;
    const int error = posix_spawnp(&process, "usbip", &files, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&files);
    if (error == ENOENT)
        fail("there is no program usbip on the PATH (mostly in /usr/sbin); install the package "
             "usbip");
    if (error != 0)
        fail(fmt::format("usbip: {}", std::strerror(error)));
    choosing_ = true;
    awaitEnd(process);
}

void Attacher::awaitEnd(pid_t process) {
    int status = 0;
    if (waitpid(process, &status, WNOHANG) == 0) {
        loop_.after(kPollInterval, [this, process]() { awaitEnd(process); });
        return;
    }
    choosing_ = false;
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0)
        finished();
    else
        retry();
}

// The client may fail although nothing is wrong: when it reads the entry of another device that the
// kernel is setting up or removing.  So it runs again.  A device that is attached in spite of the
// failure, or has left, needs no other try.
void Attacher::retry() {
    if (++failures_ < kMaxFailures) {
        loop_.after(kRetryInterval, [this]() { startNext(); });
        return;
    }
    if (waiting_.front()->isAvailable())
        fail(fmt::format("usbip did not attach {} in {} tries; the last one said: {}",
                         waiting_.front()->name().busId, failures_, clientOutput()));
    finished();
}

void Attacher::finished() {
    failures_ = 0;
    waiting_.pop_front();
    if (!waiting_.empty())
        startNext();
}

std::string Attacher::clientOutput() const {
    std::string text(1000, '\0');
    const ssize_t size = pread(output_, text.data(), text.size(), 0);
    text.resize(size > 0 ? static_cast<size_t>(size) : 0);
    while (text.ends_with('\n'))
        text.pop_back();
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text;
}

} // namespace sim
