#include "core/usbfs_limit.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <system_error>

#include <fcntl.h>
#include <libusb.h>
#include <unistd.h>

namespace vexausb {

namespace {

std::atomic<const char *> limitFile{"/sys/module/usbcore/parameters/usbfs_memory_mb"};
constexpr uint64_t kUsualLimit = 256; // enough for most

} // namespace

const char *usbfsLimitFile() {
    return limitFile.load();
}

void setUsbfsLimitFile(const char *file) {
    limitFile.store(file);
}

std::optional<uint64_t> usbfsMemoryLimit() {
    const int file = open(usbfsLimitFile(), O_RDONLY | O_CLOEXEC);
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

RefusalAdvice refusalAdvice(int libusbError) {
    RefusalAdvice advice;
    const uint64_t limit = libusbError == LIBUSB_ERROR_NO_MEM ? usbfsMemoryLimit().value_or(0) : 0;
    if (limit > 0)
        std::snprintf(advice.text.data(), advice.text.size(),
                      "; all programs together may use %" PRIu64
                      " MiB for USB transfers; for more: echo %" PRIu64 " > %s",
                      limit, std::max(2 * limit, kUsualLimit), usbfsLimitFile());
    return advice;
}

} // namespace vexausb
