#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "usb.h"

namespace sim {

struct EndpointShape {
    uint8_t address;
    EndpointType type;
};

// What the descriptors of a device are made from.
struct DeviceShape {
    Speed speed = Speed::High;
    uint16_t bcdUsb = 0; // 0: the usual one for the speed
    uint16_t vendor = 0;
    uint16_t product = 0;
    uint16_t bcdDevice = 0x0100;
    uint8_t interfaceClass = 0xFF;
    uint8_t interfaceSubClass = 0;
    uint8_t interfaceProtocol = 0;
    Bytes classDescriptor; // follows the interface descriptor
    Bytes reportDescriptor;
    std::vector<EndpointShape> endpoints;
    std::string manufacturer;
    std::string productName;
    std::string serial;
};

// The packet size of an endpoint of that type at that speed, in bytes.
uint16_t maxPacketSize(Speed speed, EndpointType type);

// The descriptors as GET_DESCRIPTOR returns them; empty if the device has no such descriptor.
Bytes deviceDescriptor(const DeviceShape &shape);
Bytes configurationDescriptor(const DeviceShape &shape);
Bytes qualifierDescriptor(const DeviceShape &shape);
Bytes bosDescriptor(const DeviceShape &shape);
Bytes stringDescriptor(const DeviceShape &shape, uint8_t index);

} // namespace sim
