#include "usb_device.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <system_error>

#include <fmt/format.h>

#include "core/supported_devices.h"

namespace tool {

namespace {

namespace fs = std::filesystem;

// The strings of a device must not send control characters to the terminal.
std::string firstLine(const fs::path &file) {
    std::ifstream input(file);
    std::string line;
    std::getline(input, line);
    std::replace_if(
        line.begin(), line.end(), [](unsigned char letter) { return std::iscntrl(letter) != 0; },
        '?');
    return line;
}

template <typename Number>
Number number(const UsbDevice &device, const char *name, int base) {
    const std::string text = device.attribute(name);
    Number value = 0;
    std::from_chars(text.data(), text.data() + text.size(), value, base);
    return value;
}

// " 2.10" is 0x0210.
uint16_t versionIn(std::string text) {
    text.erase(std::remove(text.begin(), text.end(), '.'), text.end());
    return static_cast<uint16_t>(std::strtoul(text.c_str(), nullptr, 16));
}

std::optional<UsbDevice> deviceIn(const fs::path &directory) {
    UsbDevice device;
    device.directory = directory;
    device.vendor = number<uint16_t>(device, "idVendor", 16);
    device.product = number<uint16_t>(device, "idProduct", 16);
    if (vexausb::findSupportedDevice(device.vendor, device.product) == nullptr)
        return std::nullopt;
    device.busPath = directory.filename();
    device.node = fmt::format("/dev/bus/usb/{:03}/{:03}", number<unsigned>(device, "busnum", 10),
                              number<unsigned>(device, "devnum", 10));
    device.manufacturer = device.attribute("manufacturer");
    device.productName = device.attribute("product");
    device.serial = device.attribute("serial");
    device.usbVersion = versionIn(device.attribute("version"));
    device.speed = std::strtod(device.attribute("speed").c_str(), nullptr);
    return device;
}

} // namespace

std::string UsbDevice::attribute(const char *name) const {
    return firstLine(directory / name);
}

std::string UsbDevice::interfaceName() const {
    return fmt::format("{}:{}.0", busPath, attribute("bConfigurationValue"));
}

std::string UsbDevice::driver() const {
    std::error_code error;
    return fs::read_symlink(directory / interfaceName() / "driver", error).filename();
}

std::string UsbDevice::endpointType(uint8_t address) const {
    std::error_code error;
    for (const fs::directory_entry &entry : fs::directory_iterator(directory, error)) {
        if (!entry.path().filename().string().starts_with(busPath + ":"))
            continue;
        std::string type = firstLine(entry.path() / fmt::format("ep_{:02x}", address) / "type");
        if (!type.empty())
            return type;
    }
    return {};
}

std::string UsbDevice::name() const {
    const char *const between = manufacturer.empty() || productName.empty() ? "" : " ";
    return manufacturer + between + productName;
}

std::vector<UsbDevice> attachedDevices() {
    std::vector<fs::path> places;
    std::error_code error;
    for (const fs::directory_entry &entry : fs::directory_iterator("/sys/bus/usb/devices", error))
        places.push_back(fs::weakly_canonical(entry.path(), error));
    std::sort(places.begin(), places.end());
    std::vector<UsbDevice> devices;
    for (const fs::path &place : places) {
        if (auto device = deviceIn(place))
            devices.push_back(std::move(*device));
    }
    return devices;
}

} // namespace tool
