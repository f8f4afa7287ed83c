#include "descriptors.h"

#include <initializer_list>

namespace sim {

namespace {

constexpr uint8_t kConfigurationValue = 1;

uint8_t low(uint16_t value) {
    return static_cast<uint8_t>(value & 0xFF);
}
uint8_t high(uint16_t value) {
    return static_cast<uint8_t>(value >> 8);
}

uint16_t bcdUsbOf(const DeviceShape &shape) {
    if (shape.bcdUsb != 0)
        return shape.bcdUsb;
    switch (shape.speed) {
    case Speed::Full:
        return 0x0110;
    case Speed::High:
        return 0x0200;
    default:
        return 0x0300;
    }
}

void append(Bytes &to, std::initializer_list<uint8_t> bytes) {
    to.insert(to.end(), bytes);
}

void appendEndpoint(Bytes &to, const DeviceShape &shape, const EndpointShape &endpoint) {
    const uint16_t size = maxPacketSize(shape.speed, endpoint.type);
    const bool interrupt = endpoint.type == EndpointType::Interrupt;
    // Full speed counts milliseconds; the others powers of two of 125 microseconds.
    const uint8_t interval = interrupt ? 1 : 0;
    append(to, {7, kEndpointDescriptor, endpoint.address, static_cast<uint8_t>(endpoint.type),
                low(size), high(size), interval});
    if (shape.speed != Speed::Super)
        return;
    const uint16_t perInterval = interrupt ? size : 0;
    append(to, {6, kCompanionDescriptor, 0, 0, low(perInterval), high(perInterval)});
}

} // namespace

uint16_t maxPacketSize(Speed speed, EndpointType type) {
    if (type == EndpointType::Interrupt || speed == Speed::Full)
        return 64;
    return speed == Speed::High ? 512 : 1024;
}

Bytes deviceDescriptor(const DeviceShape &shape) {
    const uint16_t usb = bcdUsbOf(shape);
    // Super speed gives the size of endpoint 0 as a power of two.
    const uint8_t controlSize = shape.speed == Speed::Super ? 9 : 64;
    Bytes bytes;
    append(bytes, {18, kDeviceDescriptor, low(usb), high(usb), 0, 0, 0, controlSize,
                   low(shape.vendor), high(shape.vendor), low(shape.product), high(shape.product),
                   low(shape.bcdDevice), high(shape.bcdDevice), 1, 2, 3, 1});
    return bytes;
}

Bytes configurationDescriptor(const DeviceShape &shape) {
    Bytes bytes;
    append(bytes, {9, kConfigurationDescriptor, 0, 0, 1, kConfigurationValue, 0, 0x80, 50});
    append(bytes, {9, kInterfaceDescriptor, 0, 0, static_cast<uint8_t>(shape.endpoints.size()),
                   shape.interfaceClass, shape.interfaceSubClass, shape.interfaceProtocol, 0});
    bytes.insert(bytes.end(), shape.classDescriptor.begin(), shape.classDescriptor.end());
    for (const EndpointShape &endpoint : shape.endpoints)
        appendEndpoint(bytes, shape, endpoint);
    const auto total = static_cast<uint16_t>(bytes.size());
    bytes[2] = low(total);
    bytes[3] = high(total);
    return bytes;
}

Bytes qualifierDescriptor(const DeviceShape &shape) {
    Bytes bytes;
    if (shape.speed == Speed::High)
        append(bytes, {10, kQualifierDescriptor, 0, 2, 0, 0, 0, 64, 1, 0});
    return bytes;
}

// USB 2.0 extension with link power management, super-speed capability.
Bytes bosDescriptor(const DeviceShape &shape) {
    Bytes bytes;
    if (shape.speed == Speed::Super) {
        append(bytes, {5, kBosDescriptor, 22, 0, 2});
        append(bytes, {7, kCapabilityDescriptor, 2, 2, 0, 0, 0});
        append(bytes, {10, kCapabilityDescriptor, 3, 0, 0x0E, 0, 1, 10, 0xFF, 0x07});
    }
    return bytes;
}

Bytes stringDescriptor(const DeviceShape &shape, uint8_t index) {
    if (index == 0)
        return {4, kStringDescriptor, 0x09, 0x04}; // the languages: English (United States)
    const std::string *texts[] = {&shape.manufacturer, &shape.productName, &shape.serial};
    if (index > std::size(texts))
        return {};
    const std::string text = texts[index - 1]->substr(0, 126);
    Bytes bytes{static_cast<uint8_t>(2 + 2 * text.size()), kStringDescriptor};
    for (const char character : text)
        append(bytes, {static_cast<uint8_t>(character), 0});
    return bytes;
}

} // namespace sim
