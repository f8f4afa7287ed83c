#include "firmware/imx7_image.h"

#include <algorithm>
#include <array>
#include <cstddef>

namespace vexausb {

/*
 * The two headers: an i.MX image vector table, which names its own address, without device
 * configuration data; and the legacy U-Boot image header, big-endian, whose load address is that of
 * the payload behind it.
 */
namespace {

constexpr uint8_t kSplTag = 0xD1;
constexpr size_t kSplHeaderSize = 24;
constexpr size_t kSplDcdOffset = 12;
constexpr size_t kSplSelfOffset = 20;
constexpr std::array<uint8_t, 4> kUbootMagic{0x27, 0x05, 0x19, 0x56};
constexpr size_t kUbootHeaderRead = 20;
constexpr size_t kUbootLoadOffset = 16;
constexpr uint32_t kUbootHeaderSize = 64; // in front of the payload

uint32_t littleEndian(const uint8_t *field) {
    return uint32_t{field[0]} | uint32_t{field[1]} << 8 | uint32_t{field[2]} << 16 |
           uint32_t{field[3]} << 24;
}

uint32_t bigEndian(const uint8_t *field) {
    return uint32_t{field[0]} << 24 | uint32_t{field[1]} << 16 | uint32_t{field[2]} << 8 |
           uint32_t{field[3]};
}

} // namespace

std::optional<uint32_t> imx7SplAddress(std::span<const uint8_t> image) {
    if (image.size() < kSplHeaderSize || image[0] != kSplTag ||
        littleEndian(&image[kSplDcdOffset]) != 0)
        return std::nullopt;
    return littleEndian(&image[kSplSelfOffset]);
}

std::optional<uint32_t> imx7UbootAddress(std::span<const uint8_t> image) {
    if (image.size() < kUbootHeaderRead ||
        !std::equal(kUbootMagic.begin(), kUbootMagic.end(), image.begin()))
        return std::nullopt;
    return bigEndian(&image[kUbootLoadOffset]) - kUbootHeaderSize;
}

} // namespace vexausb
