#include "descriptors.h"

#include <initializer_list>

#include "byte_order.h"

namespace sim {

namespace {

constexpr uint8_t kConfigurationValue = 1;

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
    // The shortest: 1 ms at full speed, 125 microseconds at the others.
    const uint8_t interval = interrupt ? 1 : 0;
    append(to, {7, kEndpointDescriptor, endpoint.address, static_cast<uint8_t>(endpoint.type)});
    appendLittleEndian16(to, size);
    append(to, {interval});
    if (shape.speed != Speed::Super)
        return;
    append(to, {6, kCompanionDescriptor, 0, 0});
    appendLittleEndian16(to, interrupt ? size : 0); // bytes in each interval
}

} // namespace

uint16_t maxPacketSize(Speed speed, EndpointType type) {
    if (type == EndpointType::Interrupt || speed == Speed::Full)
        return 64;
    return speed == Speed::High ? 512 : 1024;
}

Bytes deviceDescriptor(const DeviceShape &shape) {
    // At super speed the packet size of endpoint 0 is given as an exponent of two.
    const uint8_t controlSize = shape.speed == Speed::Super ? 9 : 64;
    Bytes bytes{18, kDeviceDescriptor};
    appendLittleEndian16(bytes, bcdUsbOf(shape));
    append(bytes, {0, 0, 0, controlSize});
    appendLittleEndian16(bytes, shape.vendor);
    appendLittleEndian16(bytes, shape.product);
    appendLittleEndian16(bytes, shape.bcdDevice);
    append(bytes, {1, 2, 3, 1});
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
    putLittleEndian16(std::span(bytes).subspan(2), static_cast<uint16_t>(bytes.size()));
    return bytes;
}

Bytes qualifierDescriptor(const DeviceShape &shape) {
    Bytes bytes;
    if (shape.speed == Speed::High)
        append(bytes, {10, kQualifierDescriptor, 0, 2, 0, 0, 0, 64, 1, 0});
    return bytes;
}

// Has two capabilities: USB 2.0 extension with link power management, and super speed.  A device
// that says USB 2.1 has them, too: it is a SuperSpeed device on a slower port.
Bytes bosDescriptor(const DeviceShape &shape) {
    constexpr uint16_t kUsb21 = 0x0210;
    Bytes bytes;
    if (shape.speed == Speed::Super || bcdUsbOf(shape) >= kUsb21) {
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
        appendLittleEndian16(bytes, static_cast<uint8_t>(character));
    return bytes;
}

} // namespace sim
