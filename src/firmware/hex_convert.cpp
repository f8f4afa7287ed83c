#include "firmware/hex_convert.h"

#include <algorithm>
#include <cstddef>
#include <stdexcept>

namespace vexausb {

namespace {

// The two bytes of an extended-address record, shifted to where they belong.
uint32_t extendedBase(const HexRecord &record, unsigned highShift, unsigned lowShift) {
    if (record.data.size() < 2)
        throw std::runtime_error("");
    return uint32_t{record.data[0]} << highShift | uint32_t{record.data[1]} << lowShift;
}

// The image always ends where the latest record does: records are expected in ascending order, and
// one that goes back cuts the image there.
void place(std::vector<uint8_t> &image, uint32_t offset, const std::vector<uint8_t> &data) {
    image.resize(size_t{offset} + data.size());
    std::copy(data.begin(), data.end(), image.begin() + static_cast<std::ptrdiff_t>(offset));
}

} // namespace

std::vector<uint8_t> hexRecordsToBinary(const HexRecords &records) {
    std::vector<uint8_t> bytes;
    for (const HexRecord &record : records) {
        bytes.push_back(static_cast<uint8_t>(record.data.size()));
        bytes.push_back(static_cast<uint8_t>(record.address >> 8));
        bytes.push_back(static_cast<uint8_t>(record.address));
        bytes.push_back(record.type);
        bytes.insert(bytes.end(), record.data.begin(), record.data.end());
        bytes.push_back(record.checksum);
    }
    return bytes;
}

std::vector<uint8_t> hexRecordsToImage(const HexRecords &records) {
    std::vector<uint8_t> image;
    uint32_t base = 0;
    for (const HexRecord &record : records) {
        switch (record.type) {
        case kHexData:
            place(image, base + record.address, record.data);
            break;
        case kHexEndOfFile:
            return image;
        case kHexExtendedSegmentAddress:
            base = extendedBase(record, 12, 4);
            break;
        case kHexExtendedLinearAddress:
            base = extendedBase(record, 24, 16);
            break;
        default:
            throw std::runtime_error("Unhandled record type");
        }
    }
    return image;
}

} // namespace vexausb
