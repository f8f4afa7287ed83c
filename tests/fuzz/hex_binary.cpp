// Intel HEX in raw bytes: what is accepted is given back byte for byte.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>

#include "firmware/formats/hex_convert.h"
#include "firmware/formats/hex_parser.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    vexausb::HexRecords records;
    try {
        records = vexausb::parseHexBinary(data, size);
    } catch (const std::runtime_error &) {
        return 0;
    } catch (const std::out_of_range &) {
        return 0;
    }
    const auto binary = vexausb::hexRecordsToBinary(records);
    if (!std::equal(binary.begin(), binary.end(), data, data + size))
        std::abort();
    return 0;
}
