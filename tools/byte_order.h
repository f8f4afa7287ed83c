#pragma once

#include <cstdint>

namespace tool {

// Numbers in files, whose byte order is theirs and not the machine's.
constexpr uint16_t littleEndian16(const uint8_t *field) {
    return static_cast<uint16_t>(field[0] | field[1] << 8);
}

constexpr uint32_t littleEndian32(const uint8_t *field) {
    return littleEndian16(field) | uint32_t{littleEndian16(field + 2)} << 16;
}

constexpr uint32_t bigEndian32(const uint8_t *field) {
    return uint32_t{field[0]} << 24 | uint32_t{field[1]} << 16 | uint32_t{field[2]} << 8 | field[3];
}

} // namespace tool
