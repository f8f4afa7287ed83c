#pragma once

#include <cstdint>
#include <cstring>

#include <endian.h>

namespace vexausb {

// Numbers in files and reports, whose byte order is theirs and not the machine's; a field need not
// be aligned.
template <typename Number>
Number storedNumber(const uint8_t *field) {
    Number number = 0;
    std::memcpy(&number, field, sizeof(number));
    return number;
}

inline uint16_t littleEndian16(const uint8_t *field) {
    return le16toh(storedNumber<uint16_t>(field));
}

inline uint32_t littleEndian32(const uint8_t *field) {
    return le32toh(storedNumber<uint32_t>(field));
}

inline uint32_t bigEndian32(const uint8_t *field) {
    return be32toh(storedNumber<uint32_t>(field));
}

inline void putBigEndian32(uint8_t *field, uint32_t value) {
    const uint32_t stored = htobe32(value);
    std::memcpy(field, &stored, sizeof(stored));
}

} // namespace vexausb
