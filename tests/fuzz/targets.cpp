// What reads firmware, by a fuzzer: one of these functions a program, which the build names.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "firmware/formats/fx3_image.h"
#include "firmware/formats/hex_convert.h"
#include "firmware/formats/hex_parser.h"
#include "firmware/formats/imx7_image.h"

namespace fuzz {

namespace {

using Input = std::span<const uint8_t>;

void require(bool condition) {
    if (!condition)
        std::abort();
}

// Intel HEX text: what is read survives the way through the binary form.
[[maybe_unused]] void hex_text(Input input) { // NOLINT(readability-identifier-naming)
    const auto records =
        vexausb::parseHexText({reinterpret_cast<const char *>(input.data()), input.size()});
    const auto binary = vexausb::hexRecordsToBinary(records);
    const auto again = vexausb::parseHexBinary(binary.data(), binary.size());
    require(again.size() == records.size() && vexausb::hexRecordsToBinary(again) == binary);
}

// Intel HEX in raw bytes: what is accepted is given back byte for byte.
[[maybe_unused]] void hex_binary(Input input) { // NOLINT(readability-identifier-naming)
    const auto records = vexausb::parseHexBinary(input.data(), input.size());
    const auto binary = vexausb::hexRecordsToBinary(records);
    require(std::equal(binary.begin(), binary.end(), input.begin(), input.end()));
}

// The flat image of any records: type, address (two bytes), count, data.  Addresses that ask for
// more than a megabyte are left out: the image begins at 0, whatever that takes.
[[maybe_unused]] void hex_image(Input input) { // NOLINT(readability-identifier-naming)
    constexpr uint8_t kHighestBase = 0x0F;     // in 64 KiB
    vexausb::HexRecords records;
    while (input.size() >= 4) {
        const Input data = input.subspan(4, std::min<size_t>(input[3], input.size() - 4));
        const bool isFar = input[0] == vexausb::kHexExtendedLinearAddress && data.size() >= 2 &&
                           (data[0] != 0 || data[1] > kHighestBase);
        if (!isFar)
            records.push_back({static_cast<uint16_t>(input[1] << 8 | input[2]),
                               input[0],
                               {data.begin(), data.end()},
                               0});
        input = input.subspan(4 + data.size());
    }
    require(vexausb::hexRecordsToImage(records).size() <= (2U << 20));
}

// The sections of an FX3 boot image all lie within it.
[[maybe_unused]] void fx3_image(Input input) { // NOLINT(readability-identifier-naming)
    std::vector<uint32_t> words(input.size() / sizeof(uint32_t));
    if (!words.empty())
        std::memcpy(words.data(), input.data(), words.size() * sizeof(uint32_t));
    vexausb::Fx3ImageWalk walk(words);
    using Record = vexausb::Fx3ImageWalk::Record;
    uint32_t sum = 0;
    size_t read = 0;
    Record record = walk.next();
    for (; record == Record::Section; record = walk.next()) {
        for (const uint32_t word : walk.data())
            sum += word;
        read += walk.data().size();
    }
    require(read <= words.size());
    // The checksum is the word behind the entry, which is the one behind the length of 0.
    require(record != Record::Entry || !walk.checksumRight() ||
            std::find(words.begin(), words.end(), sum) != words.end());
}

// Nothing behind the end of an i.MX7 image is read, and no image has both headers.
[[maybe_unused]] void imx7_image(Input input) { // NOLINT(readability-identifier-naming)
    const std::vector<uint8_t> image(input.begin(), input.end());
    require(!vexausb::imx7SplAddress(image) || !vexausb::imx7UbootAddress(image));
}

} // namespace

} // namespace fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    try {
        fuzz::VEXA_FUZZ_TARGET({data, size});
    } catch (const std::runtime_error &) { // refused
    } catch (const std::out_of_range &) {
    }
    return 0;
}
