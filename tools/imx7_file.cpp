#include "imx7_file.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include <fmt/format.h>
#include <zlib.h>

#include "firmware/formats/byte_order.h"
#include "firmware/formats/imx7_image.h"
#include "firmware_file.h"

namespace tool {

namespace {

using vexausb::bigEndian32;
using vexausb::littleEndian32;

constexpr const char *kDamaged = "The file is damaged or cut short; get it again.";

// Offsets in an image vector table, and the size of the boot data that it points to.
constexpr size_t kBootDataOffset = 16;
constexpr size_t kSelfOffset = 20;
constexpr size_t kBootDataSize = 12;

void checkBootData(const std::string &path, std::span<const uint8_t> image) {
    const uint32_t self = littleEndian32(&image[kSelfOffset]);
    const uint32_t bootData = littleEndian32(&image[kBootDataOffset]);
    if (bootData < self || uint64_t{bootData} - self + kBootDataSize > image.size())
        throwWrongFile(path, "the boot data that its header points to are not in the file",
                       kDamaged);
    const uint64_t start = littleEndian32(&image[bootData - self]);
    const uint64_t end = start + littleEndian32(&image[bootData - self + 4]);
    if (start > self || end <= self)
        throwWrongFile(path,
                       fmt::format("its boot data are for {:#x} to {:#x}, without its own header "
                                   "at {:#x}",
                                   start, end, self),
                       kDamaged);
    if (end - self > image.size())
        throwWrongFile(
            path, fmt::format("{} bytes, where its boot data promise {}", image.size(), end - self),
            kDamaged);
}

// The legacy U-Boot image header.
constexpr size_t kHeaderSize = 64;
constexpr size_t kHeaderChecksumOffset = 4;
constexpr size_t kDataSizeOffset = 12;
constexpr size_t kDataChecksumOffset = 24;
constexpr uint32_t kFlattenedTree = 0xD00DFEED;

uint32_t checksumOf(std::span<const uint8_t> bytes) {
    return static_cast<uint32_t>(crc32_z(0, bytes.data(), bytes.size()));
}

// The field of the checksum itself counts as zero.
uint32_t headerChecksum(std::span<const uint8_t> image) {
    std::array<uint8_t, kHeaderSize> header{};
    std::copy_n(image.begin(), kHeaderSize, header.begin());
    std::fill_n(header.begin() + kHeaderChecksumOffset, sizeof(uint32_t), uint8_t{0});
    return checksumOf(header);
}

void checkUbootHeader(const std::string &path, std::span<const uint8_t> image) {
    if (image.size() < kHeaderSize ||
        headerChecksum(image) != bigEndian32(&image[kHeaderChecksumOffset]))
        throwWrongFile(path, "the checksum of its header is wrong", kDamaged);
    const std::span<const uint8_t> data = image.subspan(kHeaderSize);
    const uint32_t size = bigEndian32(&image[kDataSizeOffset]);
    if (size > data.size())
        throwWrongFile(
            path, fmt::format("{} bytes of data, where its header promises {}", data.size(), size),
            kDamaged);
    if (checksumOf(data.first(size)) != bigEndian32(&image[kDataChecksumOffset]))
        throwWrongFile(path, "the checksum of its data is wrong", kDamaged);
}

} // namespace

Bytes readSplImage(const std::string &path) {
    Bytes image = readFirmware(path);
    if (!vexausb::imx7SplAddress(image))
        throwWrongFile(path, "wrong header",
                       "An SPL begins with an i.MX image vector table (0xD1) without device "
                       "configuration data; for a U-Boot image say 'load uboot'.");
    checkBootData(path, image);
    return image;
}

Bytes readUbootImage(const std::string &path) {
    Bytes image = readFirmware(path);
    if (image.size() >= sizeof(kFlattenedTree) && bigEndian32(image.data()) == kFlattenedTree)
        throwWrongFile(path, "this is a FIT image",
                       "The first loader is sent a U-Boot image of the legacy format: mkimage "
                       "without -f makes one.");
    if (!vexausb::imx7UbootAddress(image))
        throwWrongFile(path, "wrong header",
                       "A U-Boot image begins with the magic number 27 05 19 56; for the loader "
                       "before it say 'load spl'.");
    checkUbootHeader(path, image);
    return image;
}

} // namespace tool
