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
constexpr uint64_t kInFlight = 3 * (kMega / 2); // of one stream
constexpr uint64_t kSharedRing = 64 * kMega;    // below it, streams copy to their rings
constexpr uint64_t kAdvised = 256;              // MiB
constexpr double kSuperSpeed = 5000;

// A SuperSpeed stream needs a ring that the kernel fills without a copy.
uint64_t needOf(const std::vector<UsbDevice> &devices) {
    const bool isFast = std::any_of(devices.begin(), devices.end(), [](const UsbDevice &device) {
        return device.speed >= kSuperSpeed;
    });
    return std::max(devices.size() * kInFlight, isFast ? kSharedRing : 0);
}

} // namespace

// The kernel takes 0 for no limit.
Finding checkMemory(const std::vector<UsbDevice> &devices) {
    std::ifstream file(kLimit);
    uint64_t limit = 0;
    if (!(file >> limit))
        return {"memory", "the kernel does not tell its limit for transfers"};
    if (limit == 0)
        return {"memory", "no limit for transfers"};
    const uint64_t need = needOf(devices);
    const std::string is =
        fmt::format("{} MiB for all transfers, {} needed by streams from {} {}", limit,
                    sizeText(need), devices.size(), devices.size() == 1 ? "device" : "devices");
    if (limit * kMega >= need)
        return {"memory", is};
    return {"memory", is,
            fmt::format("echo {} | sudo tee {}", std::max(kAdvised, (need + kMega - 1) / kMega),
                        kLimit),
            Exit::Failed};
}

} // namespace tool
