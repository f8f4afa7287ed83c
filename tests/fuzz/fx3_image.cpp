// The sections of an FX3 boot image all lie within it.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "firmware/formats/fx3_image.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::vector<uint32_t> words(size / sizeof(uint32_t));
    if (!words.empty())
        std::memcpy(words.data(), data, words.size() * sizeof(uint32_t));
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
    // The checksum is the word behind the entry, which is the one behind the length of 0.
    if (read > words.size() || (record == Record::Entry && walk.checksumRight() &&
                                std::find(words.begin(), words.end(), sum) == words.end()))
        std::abort();
    return 0;
}
