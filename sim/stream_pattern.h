#pragma once

#include <cstdint>
#include <cstring>
#include <span>

// The bytes of the simulated instrument's stream.  Every byte depends on its position, so that one
// lost, repeated or moved byte shows; and the first eight bytes of any aligned piece tell where in
// the stream it stands.
namespace sim {

// Odd, so that multiplying by it can be undone.
inline constexpr uint64_t kPatternStep = 0x9E3779B97F4A7C15;

// The eight bytes at positions 8 * index to 8 * index + 7, as a little-endian number.
inline uint64_t patternWord(uint64_t index) {
    return (index + 1) * kPatternStep;
}

inline uint8_t patternByte(uint64_t position) {
    return static_cast<uint8_t>(patternWord(position / 8) >> (8 * (position % 8)));
}

inline void fillPattern(uint64_t position, std::span<uint8_t> room) {
    size_t done = 0;
    for (; done < room.size() && (position + done) % 8 != 0; ++done)
        room[done] = patternByte(position + done);
    uint64_t word = patternWord((position + done) / 8);
    for (; room.size() - done >= 8; done += 8, word += kPatternStep)
        std::memcpy(&room[done], &word, sizeof(word));
    for (; done < room.size(); ++done)
        room[done] = patternByte(position + done);
}

// The offset of the first byte in `data` that is not the stream's at `position`; the size of
// `data` when all are right.
inline size_t firstPatternError(uint64_t position, std::span<const uint8_t> data) {
    size_t done = 0;
    for (; done < data.size() && (position + done) % 8 != 0; ++done) {
        if (data[done] != patternByte(position + done))
            return done;
    }
    uint64_t expected = patternWord((position + done) / 8);
    for (uint64_t word = 0; data.size() - done >= 8; done += 8, expected += kPatternStep) {
        std::memcpy(&word, &data[done], sizeof(word));
        if (word != expected)
            break;
    }
    while (done < data.size() && data[done] == patternByte(position + done))
        ++done;
    return done;
}

} // namespace sim
