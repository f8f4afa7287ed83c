#pragma once

#include <array>
#include <cstdint>
#include <optional>

namespace vexausb {

// The file that holds the limit.  Tests put another in its place before anything runs.
const char *usbfsLimitFile();
void setUsbfsLimitFile(const char *file);

// The memory in MiB that the system allows for USB transfers of all processes together, where 0 is
// no limit; nothing when it cannot be read.  Needs no memory.
std::optional<uint64_t> usbfsMemoryLimit();

// What the log says behind a submission's error: the limit where that is why, else nothing.
struct RefusalAdvice {
    std::array<char, 192> text{};
};
RefusalAdvice refusalAdvice(int libusbError);

} // namespace vexausb
