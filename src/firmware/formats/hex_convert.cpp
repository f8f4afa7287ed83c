#include "firmware/formats/hex_convert.h"

#include <array>
#include <stdexcept>

#include "firmware/formats/byte_order.h"

namespace vexausb {

namespace {

uint32_t extendedAddress(const HexRecordView &record) {
    if (record.data.size() < sizeof(uint16_t))
        throw std::runtime_error("");
    return bigEndian16(record.data.data());
}

// The image ends where this record ends.  Records are expected in ascending order; one with a lower
// address drops what the image held from there on.
void place(std::vector<uint8_t> &image, uint32_t offset, const std::vector<uint8_t> &data) {
    image.resize(offset);
    image.insert(image.end(), data.begin(), data.end());
}

} // namespace

void appendHexRecord(std::vector<uint8_t> &to, const HexRecordView &record) {
    std::array<uint8_t, kHexHeaderSize> header{static_cast<uint8_t>(record.data.size())};
    putBigEndian16(&header[1], record.address);
    header[3] = record.type;
    to.insert(to.end(), header.begin(), header.end());
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
    base_ = extendedAddress(record) << (isSegment ? 4 : 16);
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
