#pragma once

#include <cstdint>
#include <optional>

namespace vexausb {

// The memory in MiB that the system allows for USB transfers of all processes together, where 0 is
// no limit; nothing when it cannot be read.  Needs no memory.
std::optional<uint64_t> usbfsMemoryLimit();

} // namespace vexausb
