#pragma once

#include <cstdint>
#include <vector>

namespace test {

// A record of Intel HEX in raw bytes, with its checksum.
inline std::vector<uint8_t> hexRecord(uint16_t address, uint8_t type,
                                      const std::vector<uint8_t> &data) {
    std::vector<uint8_t> record{static_cast<uint8_t>(data.size()),
                                static_cast<uint8_t>(address >> 8), static_cast<uint8_t>(address),
                                type};
    record.insert(record.end(), data.begin(), data.end());
    uint8_t sum = 0;
    for (const uint8_t byte : record)
        sum = static_cast<uint8_t>(sum + byte);
    record.push_back(static_cast<uint8_t>(-sum));
    return record;
}

} // namespace test
