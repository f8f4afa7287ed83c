// vexa-usb-sim: simulated USB devices for the system's USB/IP client.
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "attacher.h"
#include "connection.h"
#include "device_specification.h"
#include "event_loop.h"
#include "listen_address.h"
#include "server.h"

namespace {

constexpr int kUsage = 2; // exit status
constexpr uint32_t kDevicesPerBus = 127;
constexpr uint32_t kMaxDevices = 2 * kDevicesPerBus;

struct Options {
    std::string listen = "127.0.0.1";
    uint16_t port = 3240;
    uint32_t count = 1;
    bool attach = false;
    std::vector<std::string> devices{"instrument"};
};

class Simulator {
public:
    explicit Simulator(const Options &options);

    void run() { loop_.run(); }

private:
    void announce() const;
    void addDevice(const sim::DeviceSpecification &specification);
    void endOnSignal();

    sim::EventLoop loop_;
    sim::Connection::Devices devices_;
    sim::Server server_;
    std::optional<sim::Attacher> attacher_;
};

Simulator::Simulator(const Options &options)
    : server_(loop_, devices_, sim::ListenAddress(options.listen, options.port)) {
    if (options.attach)
        attacher_.emplace(loop_, devices_, server_.address());
    endOnSignal();
    for (const std::string &text : options.devices) {
        const sim::DeviceSpecification specification = sim::parseDeviceSpecification(text);
        for (uint32_t i = 0; i < options.count; ++i)
            addDevice(specification);
    }
    announce();
}

void Simulator::announce() const {
    const sim::ListenAddress &address = server_.address();
    if (!address.isLoopback())
        fmt::print(stderr,
                   "vexa-usb-sim: warning: USB/IP knows no password and no encryption: whoever "
                   "reaches {} can use these devices; let only a network in that you trust, or "
                   "leave --listen out and go through an ssh tunnel\n",
                   address.text());
    fmt::print("listening on {}\n", address.text());
    std::fflush(stdout);
}

void Simulator::addDevice(const sim::DeviceSpecification &specification) {
    const auto index = static_cast<uint32_t>(devices_.size());
    const uint32_t bus = index / kDevicesPerBus + 1;
    const uint32_t number = index % kDevicesPerBus + 1;
    if (index == kMaxDevices)
        throw std::invalid_argument(fmt::format("at most {} devices", kMaxDevices));
    sim::ExportedDevice &device = devices_.emplace_back(
        loop_, sim::usbip::ExportedName{fmt::format("{}-{}", bus, number), bus, number + 1},
        sim::makeDevice(specification));
    if (attacher_) {
        device.onReturn = [this, &device]() { attacher_->attach(device); };
        device.mayUnplug = [this]() { return !attacher_->isChoosingPort(); };
        if (specification.away.count() == 0)
            loop_.after({}, device.onReturn);
    }
    if (specification.away.count() != 0)
        device.stayAway(specification.away);
}

void Simulator::endOnSignal() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    const int descriptor = signalfd(-1, &signals, SFD_CLOEXEC);
    loop_.watch(descriptor, POLLIN, [this](short) { loop_.quit(); });
}

} // namespace

int main(int argc, char **argv) {
    Options options;
    CLI::App app{"Simulates USB devices, for the system's USB/IP client to plug in.\n"};
    app.footer(sim::deviceSpecificationHelp() +
               "\n\nExamples:\n"
               "  vexa-usb-sim                                    then, as root:\n"
               "    modprobe vhci-hcd; usbip attach -r 127.0.0.1 -b 1-1\n"
               "  vexa-usb-sim --attach instrument,speed=super    both in one, as root\n");
    app.set_version_flag("-V,--version", "vexa-usb-sim " VEXA_SIMULATOR_VERSION);
    app.add_option(
           "-l,--listen", options.listen,
           "Address of this machine where clients reach it, in numbers. USB/IP has no "
           "password: with another than the loopback address, whoever reaches it can use the "
           "devices")
        ->capture_default_str();
    app.add_option("-p,--port", options.port, "TCP port; 0 takes a free one")
        ->capture_default_str();
    app.add_flag("-a,--attach", options.attach, "Plug the devices into this machine (needs root)");
    app.add_option("-n,--count", options.count, "Simulate N of each device")
        ->check(CLI::Range(1U, kMaxDevices))
        ->capture_default_str();
    app.add_option("DEVICE", options.devices, "What to simulate")->capture_default_str();
    try {
        app.parse(argc, argv);
        Simulator(options).run();
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? 0 : kUsage;
    } catch (const std::invalid_argument &error) {
        fmt::print(stderr, "vexa-usb-sim: {}\n", error.what());
        return kUsage;
    } catch (const std::exception &error) {
        fmt::print(stderr, "vexa-usb-sim: {}\n", error.what());
        return 1;
    }
    return 0;
}
