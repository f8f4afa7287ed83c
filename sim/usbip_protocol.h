#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "device_model.h"
#include "usb.h"

// The USB/IP protocol, version 1.1.1, as documented with the Linux kernel
// (Documentation/usb/usbip_protocol.rst).  All numbers in its messages are big-endian.
namespace sim::usbip {

inline constexpr uint16_t kVersion = 0x0111;

enum Operation : uint16_t {
    kRequestDeviceList = 0x8005,
    kReplyDeviceList = 0x0005,
    kRequestImport = 0x8003,
    kReplyImport = 0x0003,
};

enum class OperationStatus : uint32_t { Ok = 0, Busy = 2, NoDevice = 4 };

enum Command : uint32_t {
    kSubmit = 1,
    kUnlink = 2,
    kReplySubmit = 3,
    kReplyUnlink = 4,
};

inline constexpr size_t kOperationSize = 8;
inline constexpr size_t kBusIdSize = 32;
inline constexpr size_t kHeaderSize = 48;
inline constexpr uint32_t kMaxTransfer = 64U << 20;

struct OperationHeader {
    uint16_t version;
    uint16_t operation;
};

// The header of CMD_SUBMIT or CMD_UNLINK.  `unlinkSequence` is the latter's alone, the members from
// `length` to `setup` the former's.
struct CommandHeader {
    uint32_t command;
    uint32_t sequence;
    bool in;
    uint32_t endpoint; // number without direction
    uint32_t length;
    uint32_t packets;
    Setup setup;
    uint32_t unlinkSequence;
};

// Under which name and numbers a device is offered to clients.
struct ExportedName {
    std::string busId;
    uint32_t busNumber;
    uint32_t deviceNumber;
};

OperationHeader parseOperation(std::span<const uint8_t, kOperationSize> bytes);
CommandHeader parseCommand(std::span<const uint8_t, kHeaderSize> bytes);

// A reply begins with operationReply(); the append functions add the rest of it.
Bytes operationReply(Operation operation, OperationStatus status);
void appendCount(Bytes &to, uint32_t count);
void appendDevice(Bytes &to, const ExportedName &exported, const DeviceShape &shape);
void appendInterfaces(Bytes &to, const DeviceShape &shape);

// Write the header of a reply.  `status` is 0 or a negative error number of Linux.
void writeSubmitReply(std::span<uint8_t, kHeaderSize> to, uint32_t sequence, int32_t status,
                      uint32_t actualLength);
void writeUnlinkReply(std::span<uint8_t, kHeaderSize> to, uint32_t sequence, int32_t status);

} // namespace sim::usbip
