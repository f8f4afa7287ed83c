#pragma once

#include <cstdint>
#include <span>

#include "device/abstract_device.h"

namespace vexausb {

/*
 * Boots an NXP i.MX7 in serial-download mode.  It is then a HID device that takes commands and data
 * as output reports, sent by SET_REPORT, and answers with input reports on an interrupt endpoint:
 * after each command the security mode (report 3) and a status (report 4).
 *
 * Each function writes the image to the address in its header and starts it there.  False on any
 * failure.
 *
 * Threads: they work on the caller's thread and keep nothing; the image is read during the call
 * only.
 */
bool imx7LoadSpl(AbstractDevice &device, std::span<const uint8_t> image);
bool imx7LoadUboot(AbstractDevice &device, std::span<const uint8_t> image);

} // namespace vexausb
