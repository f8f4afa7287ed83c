// The flat image of any records: type, address (two bytes), count, data.  Addresses that ask for
// more than a megabyte are left out: the image begins at 0, whatever that takes.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <vector>

#include "firmware/formats/hex_convert.h"

namespace {

constexpr uint8_t kHighestBase = 0x0F; // in 64 KiB

bool isFar(const vexausb::HexRecord &record) {
    return record.type == vexausb::kHexExtendedLinearAddress && record.data.size() >= 2 &&
           (record.data[0] != 0 || record.data[1] > kHighestBase);
}

vexausb::HexRecords recordsOf(const uint8_t *data, size_t size) {
    vexausb::HexRecords records;
    while (size >= 4) {
        const size_t count = std::min<size_t>(data[3], size - 4);
        records.emplace_back(static_cast<uint16_t>(data[1] << 8 | data[2]), data[0],
                             std::vector<uint8_t>(data + 4, data + 4 + count), uint8_t{0});
        if (isFar(records.back()))
            records.pop_back();
        data += 4 + count;
        size -= 4 + count;
    }
    return records;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    try {
        if (vexausb::hexRecordsToImage(recordsOf(data, size)).size() > (2U << 20))
            std::abort();
    } catch (const std::runtime_error &) {
    }
    return 0;
}
