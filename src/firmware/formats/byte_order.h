#pragma once

#include <cstdint>
#include <cstring>

#include <endian.h>

namespace vexausb {

// Numbers in files and requests, in the byte order that their format prescribes.  A field need not
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

inline uint16_t bigEndian16(const uint8_t *field) {
    return be16toh(storedNumber<uint16_t>(field));
}

inline uint32_t littleEndian32(const uint8_t *field) {
    return le32toh(storedNumber<uint32_t>(field));
}

inline uint32_t bigEndian32(const uint8_t *field) {
    return be32toh(storedNumber<uint32_t>(field));
}

inline void putBigEndian16(uint8_t *field, uint16_t value) {
    const uint16_t stored = htobe16(value);
    std::memcpy(field, &stored, sizeof(stored));
}

inline void putBigEndian32(uint8_t *field, uint32_t value) {
    const uint32_t stored = htobe32(value);
    std::memcpy(field, &stored, sizeof(stored));
}

} // namespace vexausb
