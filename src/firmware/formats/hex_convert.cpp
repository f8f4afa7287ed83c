#include "firmware/formats/hex_convert.h"

#include <stdexcept>

namespace vexausb {

namespace {

// The two bytes of an extended-address record, shifted to where they belong.
uint32_t extendedBase(const HexRecordView &record, unsigned highShift, unsigned lowShift) {
    if (record.data.size() < 2)
        throw std::runtime_error("");
    return uint32_t{record.data[0]} << highShift | uint32_t{record.data[1]} << lowShift;
}

// The image always ends where the latest record does: records are expected in ascending order, and
// one that goes back cuts the image there.
void place(std::vector<uint8_t> &image, uint32_t offset, const std::vector<uint8_t> &data) {
    image.resize(offset);
    image.insert(image.end(), data.begin(), data.end());
}

} // namespace

void appendHexRecord(std::vector<uint8_t> &to, const HexRecordView &record) {
    to.push_back(static_cast<uint8_t>(record.data.size()));
    to.push_back(static_cast<uint8_t>(record.address >> 8));
    to.push_back(static_cast<uint8_t>(record.address));
    to.push_back(record.type);
    to.insert(to.end(), record.data.begin(), record.data.end());
    to.push_back(record.checksum);
}

std::vector<uint8_t> hexRecordsToBinary(const HexRecords &records) {
    std::vector<uint8_t> bytes;
    for (const HexRecord &record : records)
        appendHexRecord(bytes, record.view());
    return bytes;
}

void HexAddress::extend(const HexRecordView &record) {
    const bool isSegment = record.type == kHexExtendedSegmentAddress;
    base_ = isSegment ? extendedBase(record, 12, 4) : extendedBase(record, 24, 16);
}

std::vector<uint8_t> hexRecordsToImage(const HexRecords &records) {
    std::vector<uint8_t> image;
    HexAddress address;
    for (const HexRecord &record : records) {
        switch (record.type) {
        case kHexData:
            place(image, address.of(record.view()), record.data);
            break;
        case kHexEndOfFile:
            return image;
        case kHexExtendedSegmentAddress:
        case kHexExtendedLinearAddress:
            address.extend(record.view());
            break;
        default:
            throw std::runtime_error("Unhandled record type");
        }
    }
    return image;
}

} // namespace vexausb
