#pragma once

#include <cstdint>
#include <span>

#include "device/abstract_device.h"

namespace vexausb {

/*
 * Boots an NXP i.MX7 in serial-download mode: a HID device that takes commands and data as output
 * reports, sent by SET_REPORT, and answers with input reports on an interrupt endpoint.  After each
 * command come the security mode (report 3) and a status (report 4).
 *
 * Each writes the image to where its header says and has the processor jump there.  Both are false
 * on any failure.
 *
 * Threads: they work on the caller's and hold nothing; the image is read during the call only.
 */
bool imx7LoadSpl(AbstractDevice &device, std::span<const uint8_t> image);
bool imx7LoadUboot(AbstractDevice &device, std::span<const uint8_t> image);

} // namespace vexausb
