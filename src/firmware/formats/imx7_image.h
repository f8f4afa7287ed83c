#pragma once

#include <cstdint>
#include <optional>
#include <span>

namespace vexausb {

/*
 * An i.MX7 boots from two images.  From the header of each, these functions read the address to
 * which the image is to be written and at which it is entered; empty if the header is wrong or cut
 * short.
 *
 * An SPL begins with an image vector table, little-endian, which contains its own address.  One
 * with device configuration data is refused.  A U-Boot image begins with a legacy header,
 * big-endian, which contains the address of the payload after the header.
 *
 * The functions use nothing but their arguments: any thread.
 */
std::optional<uint32_t> imx7SplAddress(std::span<const uint8_t> image);
std::optional<uint32_t> imx7UbootAddress(std::span<const uint8_t> image);

} // namespace vexausb
