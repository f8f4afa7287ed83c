#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <span>
#include <vector>

#include "bytes.h"

namespace tool {

// The memory that the records of an Intel HEX file fill. Records may come in any order.
class HexMemory {
public:
    // Bytes without a gap.
    struct Segment {
        uint64_t address;
        uint64_t size;
    };
    // Bytes that two records give.
    struct Overlap {
        uint64_t address;
        uint64_t size;
        size_t line; // of the first byte that differs, or else of the first byte
        size_t otherLine;
        std::optional<uint64_t> differsAt; // empty: the bytes are the same
    };

    void add(uint32_t address, std::span<const uint8_t> data, size_t line);
    // Call this after the last add() and before the functions below.
    void arrange();
    const std::vector<Segment> &segments() const { return segments_; }
    const std::vector<Overlap> &overlaps() const { return overlaps_; }
    // Passes every byte once, by ascending address.
    using Visit = std::function<void(uint64_t address, std::span<const uint8_t> data)>;
    void visit(const Visit &take) const;

private:
    // Consecutive lines with consecutive addresses. All but the last have the same length.
    struct Piece {
        uint32_t address;
        uint32_t line;   // the first
        uint32_t offset; // into all blocks
        uint32_t size;
        uint32_t bytesPerLine;

        uint64_t end() const { return uint64_t{address} + size; }
        size_t lineOf(uint64_t byte) const { return line + (byte - address) / bytesPerLine; }
        bool isContinuedBy(const Piece &next) const;
    };

    static constexpr size_t kBlock = 1U << 20;

    uint32_t store(std::span<const uint8_t> data);
    std::span<const uint8_t> dataOf(const Piece &piece, uint64_t begin, uint64_t end) const;
    void noteOverlap(const Piece &furthest, const Piece &piece);

    std::deque<Piece> pieces_; // a deque grows without copying
    std::deque<Bytes> blocks_; // of kBlock bytes
    std::vector<Segment> segments_;
    std::vector<Overlap> overlaps_;
};

} // namespace tool
