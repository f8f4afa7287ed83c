#include "firmware/formats/imx7_image.h"

#include <algorithm>
#include <array>
#include <cstddef>

#include "firmware/formats/byte_order.h"

namespace vexausb {

namespace {

constexpr uint8_t kSplTag = 0xD1;
constexpr size_t kSplHeaderSize = 24;
constexpr size_t kSplDcdOffset = 12;
constexpr size_t kSplSelfOffset = 20;
constexpr std::array<uint8_t, 4> kUbootMagic{0x27, 0x05, 0x19, 0x56};
constexpr size_t kUbootHeaderRead = 20;
constexpr size_t kUbootLoadOffset = 16;
constexpr uint32_t kUbootHeaderSize = 64; // up to the payload

} // namespace

std::optional<uint32_t> imx7SplAddress(std::span<const uint8_t> image) {
    if (image.size() < kSplHeaderSize || image[0] != kSplTag ||
        littleEndian32(&image[kSplDcdOffset]) != 0)
        return std::nullopt;
    return littleEndian32(&image[kSplSelfOffset]);
}

std::optional<uint32_t> imx7UbootAddress(std::span<const uint8_t> image) {
    if (image.size() < kUbootHeaderRead ||
        !std::equal(kUbootMagic.begin(), kUbootMagic.end(), image.begin()))
        return std::nullopt;
    return bigEndian32(&image[kUbootLoadOffset]) - kUbootHeaderSize;
}

} // namespace vexausb
