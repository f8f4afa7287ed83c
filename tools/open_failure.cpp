#include "open_failure.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <ios>
#include <string>
#include <system_error>
#include <vector>

#include <fcntl.h>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "device.h"
#include "vexa_usb.h"

namespace tool {

namespace {

namespace fs = std::filesystem;

// A number in a file that the kernel shows; -1 when there is none.
int attribute(const fs::path &directory, const char *name, std::ios::fmtflags base) {
    std::ifstream file(directory / name);
    file.setf(base, std::ios::basefield);
    int value = -1;
    return file >> value ? value : -1;
}

// The library names a device by its identifiers alone, and several may have the same.
std::vector<std::string> nodesOf(uint16_t vendor, uint16_t product) {
    std::vector<std::string> nodes;
    std::error_code error;
    for (const fs::directory_entry &entry : fs::directory_iterator("/sys/bus/usb/devices", error)) {
        const fs::path &path = entry.path();
        if (attribute(path, "idVendor", std::ios::hex) == vendor &&
            attribute(path, "idProduct", std::ios::hex) == product)
            nodes.push_back(fmt::format("/dev/bus/usb/{:03}/{:03}",
                                        attribute(path, "busnum", std::ios::dec),
                                        attribute(path, "devnum", std::ios::dec)));
    }
    return nodes;
}

struct Obstacle {
    std::string reason; // empty: nothing stands in the way
    std::string hint;
};

// Whose interface 0 is, of a device whose node could be opened.
Obstacle holderOf(const std::string &node, int descriptor) {
    usbdevfs_getdriver query{};
    if (ioctl(descriptor, USBDEVFS_GETDRIVER, &query) != 0)
        return {};
    if (std::strcmp(query.driver, "usbfs") == 0)
        return {fmt::format("busy, another program has {} in use", node),
                fmt::format("End that program: 'fuser -v {}' shows which it is.", node)};
    return {fmt::format("busy, the kernel's driver {} has {} in use", query.driver, node),
            fmt::format("Unload that driver: modprobe -r {}", query.driver)};
}

Obstacle obstacleAt(const std::string &node) {
    const int descriptor = open(node.c_str(), O_RDWR | O_CLOEXEC);
    if (descriptor >= 0) {
        Obstacle obstacle = holderOf(node, descriptor);
        close(descriptor);
        return obstacle;
    }
    if (errno == EACCES || errno == EPERM)
        return {"no permission for " + node,
                "Install the udev rule 70-vexa-usb.rules and plug the device in again; without a "
                "seat at this machine, be in the group plugdev. Or try as root."};
    return {fmt::format("{}: {}", node, std::strerror(errno)), "Plug the device in again."};
}

} // namespace

Error openFailure(uint16_t vendor, uint16_t product, int32_t status) {
    std::vector<std::string> reasons;
    std::string hint;
    for (const std::string &node : nodesOf(vendor, product)) {
        const Obstacle obstacle = obstacleAt(node);
        if (obstacle.reason.empty())
            continue;
        reasons.push_back(obstacle.reason);
        if (hint.find(obstacle.hint) == std::string::npos)
            hint += (hint.empty() ? "" : "\n  ") + obstacle.hint;
    }
    if (reasons.empty()) {
        reasons.push_back(fmt::format("{} ({})", vexa_usb_get_status_str(status), status));
        hint = "Nothing stands in the way now: try again; --verbose tells the system's reason.";
    }
    return {Exit::CannotOpen,
            fmt::format("cannot open device {}: {}", identifierText(vendor, product),
                        fmt::join(reasons, "; ")),
            hint};
}

} // namespace tool
