#include "core/usbfs_limit.h"

#include <array>
#include <charconv>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

namespace vexausb {

std::optional<uint64_t> usbfsMemoryLimit() {
    const int file = open("/sys/module/usbcore/parameters/usbfs_memory_mb", O_RDONLY | O_CLOEXEC);
    if (file < 0)
        return std::nullopt;
    std::array<char, 32> text{};
    const ssize_t length = read(file, text.data(), text.size());
    close(file);
    uint64_t limit = 0;
    if (length <= 0 || std::from_chars(text.data(), text.data() + length, limit).ec != std::errc())
        return std::nullopt;
    return limit;
}

} // namespace vexausb
