#include "usbip_protocol.h"

#include <algorithm>
#include <cstring>

#include <endian.h>

namespace sim::usbip {

namespace {

constexpr size_t kPathSize = 256;

uint16_t get16(std::span<const uint8_t> bytes, size_t at) {
    uint16_t value = 0;
    std::memcpy(&value, &bytes[at], sizeof(value));
    return be16toh(value);
}

uint32_t get32(std::span<const uint8_t> bytes, size_t at) {
    uint32_t value = 0;
    std::memcpy(&value, &bytes[at], sizeof(value));
    return be32toh(value);
}

void put32(std::span<uint8_t> bytes, size_t at, uint32_t value) {
    const uint32_t inOrder = htobe32(value);
    std::memcpy(&bytes[at], &inOrder, sizeof(inOrder));
}

void append16(Bytes &to, uint16_t value) {
    to.push_back(static_cast<uint8_t>(value >> 8));
    to.push_back(static_cast<uint8_t>(value & 0xFF));
}

void append32(Bytes &to, uint32_t value) {
    append16(to, static_cast<uint16_t>(value >> 16));
    append16(to, static_cast<uint16_t>(value & 0xFFFF));
}

void appendText(Bytes &to, const std::string &text, size_t size) {
    const size_t start = to.size();
    to.resize(start + size);
    std::copy_n(text.begin(), std::min(text.size(), size - 1),
                to.begin() + static_cast<long>(start));
}

// The setup packet stands in USB's own byte order.
Setup parseSetup(std::span<const uint8_t> bytes) {
    const auto little16 = [&](size_t at) {
        return static_cast<uint16_t>(bytes[at] | (bytes[at + 1] << 8));
    };
    return {bytes[0], bytes[1], little16(2), little16(4), little16(6)};
}

} // namespace

OperationHeader parseOperation(std::span<const uint8_t, kOperationSize> bytes) {
    return {get16(bytes, 0), get16(bytes, 2)};
}

CommandHeader parseCommand(std::span<const uint8_t, kHeaderSize> bytes) {
    CommandHeader header{};
    header.command = get32(bytes, 0);
    header.sequence = get32(bytes, 4);
    header.in = get32(bytes, 12) != 0;
    header.endpoint = get32(bytes, 16);
    header.unlinkSequence = get32(bytes, 20);
    header.length = get32(bytes, 24);
    header.packets = get32(bytes, 32);
    header.setup = parseSetup(bytes.subspan(40, 8));
    return header;
}

Bytes operationReply(Operation operation, OperationStatus status) {
    Bytes bytes;
    append16(bytes, kVersion);
    append16(bytes, operation);
    append32(bytes, static_cast<uint32_t>(status));
    return bytes;
}

void appendCount(Bytes &to, uint32_t count) {
    append32(to, count);
}

void appendDevice(Bytes &to, const ExportedAs &exported, const DeviceShape &shape) {
    appendText(to, "/simulated/" + exported.busId, kPathSize);
    appendText(to, exported.busId, kBusIdSize);
    append32(to, exported.busNumber);
    append32(to, exported.deviceNumber);
    append32(to, static_cast<uint32_t>(shape.speed));
    append16(to, shape.vendor);
    append16(to, shape.product);
    append16(to, shape.bcdDevice);
    // Class, subclass, protocol; configuration in use, configurations, interfaces.
    to.insert(to.end(), {0, 0, 0, 1, 1, 1});
}

void appendInterfaces(Bytes &to, const DeviceShape &shape) {
    to.insert(to.end(),
              {shape.interfaceClass, shape.interfaceSubClass, shape.interfaceProtocol, 0});
}

void writeSubmitReply(std::span<uint8_t, kHeaderSize> to, uint32_t sequence, int32_t status,
                      uint32_t actualLength) {
    std::fill(to.begin(), to.end(), uint8_t{0});
    put32(to, 0, kReplySubmit);
    put32(to, 4, sequence);
    put32(to, 20, static_cast<uint32_t>(status));
    put32(to, 24, actualLength);
}

void writeUnlinkReply(std::span<uint8_t, kHeaderSize> to, uint32_t sequence, int32_t status) {
    std::fill(to.begin(), to.end(), uint8_t{0});
    put32(to, 0, kReplyUnlink);
    put32(to, 4, sequence);
    put32(to, 20, static_cast<uint32_t>(status));
}

} // namespace sim::usbip
