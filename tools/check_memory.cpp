#include <algorithm>
#include <cstdint>
#include <fstream>

#include <fmt/format.h>

#include "device_checks.h"
#include "progress.h"

namespace tool {

namespace {

constexpr const char *kLimit = "/sys/module/usbcore/parameters/usbfs_memory_mb";
constexpr uint64_t kMega = 1U << 20;
constexpr uint64_t kInFlight = 3 * (512U << 10); // what a stream has, at the least
constexpr uint64_t kFastRing = 64 * kMega;       // for what comes at SuperSpeed
constexpr double kSuperSpeed = 5000;

uint64_t needOf(const UsbDevice &device) {
    return device.speed >= kSuperSpeed ? kFastRing : kInFlight;
}

} // namespace

// A limit of 0 is none.
Finding checkMemory(const std::vector<UsbDevice> &devices) {
    std::ifstream file(kLimit);
    uint64_t limit = 0;
    if (!(file >> limit))
        return {"memory", "the kernel does not tell its limit for transfers"};
    if (limit == 0)
        return {"memory", "no limit for transfers"};
    uint64_t need = 0;
    for (const UsbDevice &device : devices)
        need += needOf(device);
    const std::string is =
        fmt::format("{} MiB for all transfers, {} needed by streams from {} {}", limit,
                    sizeText(need), devices.size(), devices.size() == 1 ? "device" : "devices");
    if (limit * kMega >= need)
        return {"memory", is};
    return {"memory", is,
            fmt::format("echo {} | sudo tee {}",
                        std::max<uint64_t>(256, (need + kMega - 1) / kMega), kLimit),
            Exit::Failed};
}

} // namespace tool
