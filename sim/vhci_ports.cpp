#include "vhci_ports.h"

#include <filesystem>
#include <fstream>
#include <istream>
#include <map>
#include <set>
#include <sstream>
#include <string>

#include <fmt/format.h>

namespace sim {

namespace {

namespace fs = std::filesystem;

constexpr int kPortIsFree = 4;
constexpr const char *kControllers = "/sys/devices/platform";

// The root hubs' directories of a controller, by what its table of ports calls them: "hs" and "ss".
std::map<std::string, fs::path> rootHubs(const fs::path &controller) {
    std::map<std::string, fs::path> hubs;
    for (const auto &entry : fs::directory_iterator(controller)) {
        if (!entry.path().filename().string().starts_with("usb") || !entry.is_directory())
            continue;
        int speed = 0;
        if (std::ifstream(entry.path() / "speed") >> speed)
            hubs[speed >= 5000 ? "ss" : "hs"] = entry.path();
    }
    return hubs;
}

// The kernel's name for a device of a server.
std::string deviceId(const usbip::ExportedName &name) {
    return fmt::format("{:08x}", name.busNumber << 16 | name.deviceNumber);
}

bool holdsDepartedDevices(const fs::path &controller, std::istream &table,
                          const std::set<std::string> &departed) {
    const auto hubs = rootHubs(controller);
    std::map<std::string, int> ports; // so far, by hub
    std::string line;
    std::getline(table, line); // the columns' names
    while (std::getline(table, line)) {
        std::istringstream row(line);
        std::string hub;
        std::string number;
        std::string speed;
        std::string device;
        int state = 0;
        row >> hub >> number >> state >> speed >> device;
        const int port = ++ports[hub];
        if (departed.contains(device))
            return true;
        const auto found = hubs.find(hub);
        if (state != kPortIsFree || found == hubs.end())
            continue;
        const std::string bus = found->second.filename().string().substr(3);
        if (fs::exists(found->second / fmt::format("{}-{}", bus, port)))
            return true;
    }
    return false;
}

} // namespace

bool portsHoldDepartedDevices(const Connection::Devices &devices) {
    std::set<std::string> departed;
    for (const ExportedDevice &device : devices) {
        if (device.hasLeft())
            departed.insert(deviceId(device.name()));
    }
    for (int index = 0;; ++index) {
        const fs::path controller = fs::path(kControllers) / fmt::format("vhci_hcd.{}", index);
        if (!fs::exists(controller))
            return false;
        // All tables are kept by the first controller.
        std::ifstream table(fs::path(kControllers) / "vhci_hcd.0" /
                            (index == 0 ? "status" : fmt::format("status.{}", index)));
        if (holdsDepartedDevices(controller, table, departed))
            return true;
    }
}

} // namespace sim
