#pragma once

#include <cstdint>
#include <string>

#include "bytes.h"

namespace tool {

// A firmware file for a device in DFU mode. The suffix that such a file may have is not sent to the
// device and therefore not part of `image`.
struct DfuFile {
    static constexpr uint16_t kAny = 0xFFFF;

    Bytes image;
    uint16_t vendor = kAny; // of the device that the file is for
    uint16_t product = kAny;

    bool isFor(uint16_t deviceVendor, uint16_t deviceProduct) const {
        return (vendor == kAny || vendor == deviceVendor) &&
               (product == kAny || product == deviceProduct);
    }
};

DfuFile readDfuFile(const std::string &path);

} // namespace tool
