#include "hex_memory.h"

#include <algorithm>
#include <tuple>
#include <utility>

namespace tool {

bool HexMemory::Piece::isContinuedBy(const Piece &next) const {
    return next.address == end() && next.offset == offset + size && size % bytesPerLine == 0 &&
           next.size <= bytesPerLine && next.line == lineOf(end());
}

// Returns the offset. The data of one call lie within one block.
uint32_t HexMemory::store(std::span<const uint8_t> data) {
    if (blocks_.empty() || blocks_.back().size() + data.size() > kBlock)
        blocks_.emplace_back().reserve(kBlock);
    Bytes &block = blocks_.back();
    const size_t offset = (blocks_.size() - 1) * kBlock + block.size();
    block.insert(block.end(), data.begin(), data.end());
    return static_cast<uint32_t>(offset);
}

void HexMemory::add(uint32_t address, std::span<const uint8_t> data, size_t line) {
    const auto size = static_cast<uint32_t>(data.size());
    const Piece piece{address, static_cast<uint32_t>(line), store(data), size, size};
    if (!pieces_.empty() && pieces_.back().isContinuedBy(piece))
        pieces_.back().size += size;
    else
        pieces_.push_back(piece);
}

std::span<const uint8_t> HexMemory::dataOf(const Piece &piece, uint64_t begin, uint64_t end) const {
    const Bytes &block = blocks_[piece.offset / kBlock];
    return std::span(block).subspan(piece.offset % kBlock + (begin - piece.address), end - begin);
}

/*
 * In ascending order, a piece overlaps earlier ones only where it overlaps the one of them that
 * reaches furthest; so each is compared with that one alone.
 */
void HexMemory::arrange() {
    const auto isBefore = [](const Piece &left, const Piece &right) {
        return std::tie(left.address, left.line) < std::tie(right.address, right.line);
    };
    if (!std::is_sorted(pieces_.begin(), pieces_.end(), isBefore))
        std::sort(pieces_.begin(), pieces_.end(), isBefore);
    const Piece *furthest = nullptr;
    for (const Piece &piece : pieces_) {
        if (furthest != nullptr && piece.address < furthest->end())
            noteOverlap(*furthest, piece);
        if (furthest == nullptr || piece.address > furthest->end())
            segments_.push_back({piece.address, 0});
        if (furthest == nullptr || piece.end() > furthest->end())
            furthest = &piece;
        segments_.back().size = furthest->end() - segments_.back().address;
    }
}

void HexMemory::noteOverlap(const Piece &furthest, const Piece &piece) {
    const uint64_t begin = piece.address;
    const uint64_t end = std::min(furthest.end(), piece.end());
    const auto ours = dataOf(furthest, begin, end);
    const auto theirs = dataOf(piece, begin, end);
    const auto difference = std::mismatch(ours.begin(), ours.end(), theirs.begin()).first;
    Overlap overlap{begin, end - begin, 0, 0, std::nullopt};
    if (difference != ours.end())
        overlap.differsAt = begin + static_cast<uint64_t>(difference - ours.begin());
    const uint64_t byte = overlap.differsAt.value_or(begin);
    std::tie(overlap.line, overlap.otherLine) =
        std::minmax({furthest.lineOf(byte), piece.lineOf(byte)});
    if (!overlaps_.empty() && begin <= overlaps_.back().address + overlaps_.back().size &&
        overlaps_.back().differsAt.has_value() == overlap.differsAt.has_value())
        overlaps_.back().size = std::max(overlaps_.back().size, end - overlaps_.back().address);
    else
        overlaps_.push_back(overlap);
}

void HexMemory::visit(const Visit &take) const {
    uint64_t given = 0;
    for (const Piece &piece : pieces_) {
        const uint64_t begin = std::max<uint64_t>(piece.address, given);
        if (begin >= piece.end())
            continue;
        given = piece.end();
        take(begin, dataOf(piece, begin, given));
    }
}

} // namespace tool
