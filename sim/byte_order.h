#pragma once

#include <cstdint>
#include <cstring>
#include <span>

#include <endian.h>

#include "usb.h"

// Numbers in the bytes that hosts and devices exchange: USB's are little-endian, those of USB/IP
// and of the i.MX7's reports big-endian.  They need not be aligned.  Each function uses the first
// bytes of its span, which has to hold the number.
namespace sim {

template <typename Number>
Number storedNumber(std::span<const uint8_t> bytes) {
    Number number = 0;
    std::memcpy(&number, bytes.data(), sizeof(number));
    return number;
}

template <typename Number>
void storeNumber(std::span<uint8_t> to, Number number) {
    std::memcpy(to.data(), &number, sizeof(number));
}

template <typename Number>
void appendNumber(Bytes &to, Number number) {
    const size_t start = to.size();
    to.resize(start + sizeof(number));
    storeNumber(std::span(to).subspan(start), number);
}

inline uint16_t littleEndian16(std::span<const uint8_t> bytes) {
    return le16toh(storedNumber<uint16_t>(bytes));
}
inline uint32_t littleEndian32(std::span<const uint8_t> bytes) {
    return le32toh(storedNumber<uint32_t>(bytes));
}
inline uint64_t littleEndian64(std::span<const uint8_t> bytes) {
    return le64toh(storedNumber<uint64_t>(bytes));
}
inline uint16_t bigEndian16(std::span<const uint8_t> bytes) {
    return be16toh(storedNumber<uint16_t>(bytes));
}
inline uint32_t bigEndian32(std::span<const uint8_t> bytes) {
    return be32toh(storedNumber<uint32_t>(bytes));
}

inline void putLittleEndian16(std::span<uint8_t> to, uint16_t value) {
    storeNumber(to, htole16(value));
}
inline void putLittleEndian32(std::span<uint8_t> to, uint32_t value) {
    storeNumber(to, htole32(value));
}
inline void putBigEndian32(std::span<uint8_t> to, uint32_t value) {
    storeNumber(to, htobe32(value));
}

inline void appendLittleEndian16(Bytes &to, uint16_t value) {
    appendNumber(to, htole16(value));
}
inline void appendLittleEndian64(Bytes &to, uint64_t value) {
    appendNumber(to, htole64(value));
}
inline void appendBigEndian16(Bytes &to, uint16_t value) {
    appendNumber(to, htobe16(value));
}
inline void appendBigEndian32(Bytes &to, uint32_t value) {
    appendNumber(to, htobe32(value));
}

} // namespace sim
