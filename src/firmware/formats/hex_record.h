#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace vexausb {

enum HexRecordType : uint8_t {
    kHexData = 0x00,
    kHexEndOfFile = 0x01,
    kHexExtendedSegmentAddress = 0x02,
    kHexStartSegmentAddress = 0x03,
    kHexExtendedLinearAddress = 0x04,
    kHexStartLinearAddress = 0x05,
};

// A record in bytes: count, address (2), type, data, checksum.
inline constexpr size_t kHexHeaderSize = 4;
inline constexpr size_t kHexChecksumSize = 1;
inline constexpr size_t kLongestHexRecord = kHexHeaderSize + UINT8_MAX + kHexChecksumSize;

// A record that refers to data in somebody else's memory.
struct HexRecordView {
    uint16_t address;
    uint8_t type;
    std::span<const uint8_t> data;
    uint8_t checksum;
};

// A record with data of its own.  The type can be any number that was read.
struct HexRecord {
    uint16_t address;
    uint8_t type;
    std::vector<uint8_t> data;
    uint8_t checksum;

    HexRecordView view() const { return {address, type, data, checksum}; }
};

using HexRecords = std::vector<HexRecord>;

} // namespace vexausb
