#pragma once

#include <cstdint>
#include <string>

#include "bytes.h"

namespace tool {

// A firmware file for a device in DFU mode, without the suffix that such files may have, which is
// not for the device.
struct DfuFile {
    static constexpr uint16_t kAny = 0xFFFF;

    Bytes image;
    uint16_t vendor = kAny; // what it is meant for
    uint16_t product = kAny;

    bool isFor(uint16_t deviceVendor, uint16_t deviceProduct) const {
        return (vendor == kAny || vendor == deviceVendor) &&
               (product == kAny || product == deviceProduct);
    }
};

DfuFile readDfuFile(const std::string &path);

} // namespace tool
