#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace vexausb {

inline constexpr size_t kFx2LoaderImageSize = 1070;

// The program of fx2_loader.asm, as Intel HEX records in their binary encoding.
extern const std::array<uint8_t, kFx2LoaderImageSize> kFx2LoaderImage;

} // namespace vexausb
