#pragma once

#include <cstdint>
#include <optional>
#include <span>

namespace vexausb {

/*
 * The headers of the two images that an i.MX7 boots from, and what they say of where the image is
 * to be written and entered; nothing when a header is wrong or cut short.
 *
 * An SPL begins with an image vector table, little-endian, which names its own address; one that
 * brings device configuration data is refused.  A U-Boot image begins with its legacy header,
 * big-endian, whose load address is that of the payload behind it.
 *
 * Functions of their arguments alone: any thread.
 */
std::optional<uint32_t> imx7SplAddress(std::span<const uint8_t> image);
std::optional<uint32_t> imx7UbootAddress(std::span<const uint8_t> image);

} // namespace vexausb
