#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace tool {

// An attached device as the kernel shows it in /sys/bus/usb/devices, which everybody may read.
struct UsbDevice {
    std::filesystem::path directory;
    std::string busPath; // the bus and the ports on the way to the device, such as 1-2.3
    std::string node;    // below /dev/bus/usb
    uint16_t vendor = 0;
    uint16_t product = 0;
    std::string manufacturer; // this and the next two are empty where the device has none
    std::string productName;
    std::string serial;
    uint16_t usbVersion = 0; // bcdUSB
    double speed = 0;        // Mbit/s; 0: unknown

    // The first line of a file of the device's directory; empty when there is none.
    std::string attribute(const char *name) const;
    // The driver of interface 0, the one that the library uses; empty when there is none.
    std::string driver() const;
    // The name of interface 0 below /sys/bus/usb/drivers.
    std::string interfaceName() const;
    // "Bulk", "Interrupt", ...; empty when the endpoint is not in use.
    std::string endpointType(uint8_t address) const;
    // Manufacturer and product.
    std::string name() const;
};

// The supported devices that are attached, in the order of their places on the bus.
std::vector<UsbDevice> attachedDevices();

} // namespace tool
