#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

#include <endian.h>

// The bytes of the simulated instrument's stream.  Every byte depends on its position, so a lost,
// repeated or moved byte is noticed.  Any eight aligned bytes tell their position in the stream.
namespace sim {

// Odd, so that different indices give different products.
inline constexpr uint64_t kPatternStep = 0x9E3779B97F4A7C15;

// The number whose little-endian bytes are at the positions 8 * index to 8 * index + 7.
inline uint64_t patternWord(uint64_t index) {
    return (index + 1) * kPatternStep;
}

inline uint8_t patternByte(uint64_t position) {
    const uint64_t stored = htole64(patternWord(position / 8));
    return std::bit_cast<std::array<uint8_t, sizeof(stored)>>(stored)[position % 8];
}

inline void fillPattern(uint64_t position, std::span<uint8_t> room) {
    size_t done = 0;
    for (; done < room.size() && (position + done) % 8 != 0; ++done)
        room[done] = patternByte(position + done);
    uint64_t word = patternWord((position + done) / 8);
    for (; room.size() - done >= 8; done += 8, word += kPatternStep) {
        const uint64_t stored = htole64(word);
        std::memcpy(&room[done], &stored, sizeof(stored));
    }
    for (; done < room.size(); ++done)
        room[done] = patternByte(position + done);
}

// Compares `data` with the stream from `position` on.  Returns the offset of the first byte that
// differs, or the size of `data` if none does.
inline size_t firstPatternError(uint64_t position, std::span<const uint8_t> data) {
    size_t done = 0;
    for (; done < data.size() && (position + done) % 8 != 0; ++done) {
        if (data[done] != patternByte(position + done))
            return done;
    }
    uint64_t expected = patternWord((position + done) / 8);
    for (uint64_t stored = 0; data.size() - done >= 8; done += 8, expected += kPatternStep) {
        std::memcpy(&stored, &data[done], sizeof(stored));
        if (le64toh(stored) != expected)
            break;
    }
    while (done < data.size() && data[done] == patternByte(position + done))
        ++done;
    return done;
}

} // namespace sim
