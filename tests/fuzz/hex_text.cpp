// Intel HEX text: what is read survives the way through the binary form.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string_view>

#include "firmware/formats/hex_convert.h"
#include "firmware/formats/hex_parser.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    vexausb::HexRecords records;
    try {
        records = vexausb::parseHexText({reinterpret_cast<const char *>(data), size});
    } catch (const std::runtime_error &) {
        return 0;
    } catch (const std::out_of_range &) {
        return 0;
    }
    const auto binary = vexausb::hexRecordsToBinary(records);
    const auto again = vexausb::parseHexBinary(binary.data(), binary.size());
    if (again.size() != records.size() || vexausb::hexRecordsToBinary(again) != binary)
        std::abort();
    return 0;
}
