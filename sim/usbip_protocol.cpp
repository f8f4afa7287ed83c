#include "usbip_protocol.h"

#include <algorithm>

#include "byte_order.h"

namespace sim::usbip {

namespace {

constexpr size_t kPathSize = 256;

// Fills the rest of `size` bytes with zeros.
void appendText(Bytes &to, const std::string &text, size_t size) {
    const size_t start = to.size();
    to.resize(start + size);
    std::copy_n(text.begin(), std::min(text.size(), size - 1),
                to.begin() + static_cast<long>(start));
}

// The setup packet is in USB's own byte order, not in that of USB/IP.
Setup parseSetup(std::span<const uint8_t> bytes) {
    return {bytes[0], bytes[1], littleEndian16(bytes.subspan(2)), littleEndian16(bytes.subspan(4)),
            littleEndian16(bytes.subspan(6))};
}

// The fields that both replies have.
void writeReply(std::span<uint8_t, kHeaderSize> to, Command command, uint32_t sequence,
                int32_t status) {
    std::fill(to.begin(), to.end(), uint8_t{0});
    putBigEndian32(to, command);
    putBigEndian32(to.subspan(4), sequence);
    putBigEndian32(to.subspan(20), static_cast<uint32_t>(status));
}

} // namespace

OperationHeader parseOperation(std::span<const uint8_t, kOperationSize> bytes) {
    return {bigEndian16(bytes), bigEndian16(bytes.subspan(2))};
}

CommandHeader parseCommand(std::span<const uint8_t, kHeaderSize> bytes) {
    CommandHeader header{};
    header.command = bigEndian32(bytes);
    header.sequence = bigEndian32(bytes.subspan(4));
    header.in = bigEndian32(bytes.subspan(12)) != 0;
    header.endpoint = bigEndian32(bytes.subspan(16));
    header.unlinkSequence = bigEndian32(bytes.subspan(20));
    header.length = bigEndian32(bytes.subspan(24));
    header.packets = bigEndian32(bytes.subspan(32));
    header.setup = parseSetup(bytes.subspan(40, 8));
    return header;
}

Bytes operationReply(Operation operation, OperationStatus status) {
    Bytes bytes;
    appendBigEndian16(bytes, kVersion);
    appendBigEndian16(bytes, operation);
    appendBigEndian32(bytes, static_cast<uint32_t>(status));
    return bytes;
}

void appendCount(Bytes &to, uint32_t count) {
    appendBigEndian32(to, count);
}

void appendDevice(Bytes &to, const ExportedName &exported, const DeviceShape &shape) {
    appendText(to, "/simulated/" + exported.busId, kPathSize);
    appendText(to, exported.busId, kBusIdSize);
    appendBigEndian32(to, exported.busNumber);
    appendBigEndian32(to, exported.deviceNumber);
    appendBigEndian32(to, static_cast<uint32_t>(shape.speed));
    appendBigEndian16(to, shape.vendor);
    appendBigEndian16(to, shape.product);
    appendBigEndian16(to, shape.bcdDevice);
    // Class, subclass, protocol; current configuration, number of configurations and of interfaces.
    to.insert(to.end(), {0, 0, 0, 1, 1, 1});
}

void appendInterfaces(Bytes &to, const DeviceShape &shape) {
    to.insert(to.end(),
              {shape.interfaceClass, shape.interfaceSubClass, shape.interfaceProtocol, 0});
}

void writeSubmitReply(std::span<uint8_t, kHeaderSize> to, uint32_t sequence, int32_t status,
                      uint32_t actualLength) {
    writeReply(to, kReplySubmit, sequence, status);
    putBigEndian32(to.subspan(24), actualLength);
}

void writeUnlinkReply(std::span<uint8_t, kHeaderSize> to, uint32_t sequence, int32_t status) {
    writeReply(to, kReplyUnlink, sequence, status);
}

} // namespace sim::usbip
