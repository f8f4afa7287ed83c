#include "fx3_file.h"

#include <cstring>

#include <fmt/format.h>

#include "bytes.h"
#include "firmware/formats/fx3_image.h"
#include "firmware_file.h"

namespace tool {

namespace {

constexpr uint8_t kIsData = 1; // in the control byte: not for the processor to run
constexpr uint8_t kProgramType = 0xB0;

constexpr const char *kHint =
    "An FX3 boot image is what the chip's tools make of a program: \"CY\", two control bytes, "
    "sections in 32-bit words, the entry, a checksum.";

void checkHeader(const std::string &path, const Bytes &bytes) {
    if (bytes.size() < 4 || bytes[0] != 'C' || bytes[1] != 'Y')
        throwWrongFile(path, "wrong signature", kHint);
    if (bytes[3] != kProgramType)
        throwWrongFile(path, fmt::format("an FX3 image of type {:#04x}", bytes[3]),
                       "Only a program with a checksum, type 0xb0, can be loaded.");
    if ((bytes[2] & kIsData) != 0)
        throwWrongFile(path, "an FX3 image of data instead of a program", kHint);
}

void checkSections(const std::string &path, const std::vector<uint32_t> &words) {
    vexausb::Fx3ImageWalk walk(words);
    using Record = vexausb::Fx3ImageWalk::Record;
    Record record = walk.next();
    while (record == Record::Section)
        record = walk.next();
    if (record == Record::Broken)
        throwWrongFile(path, "a section runs past the end of the file", kHint);
    if (record == Record::End)
        throwWrongFile(path, "there is no program entry", kHint);
    if (!walk.checksumRight())
        throwWrongFile(path, "Invalid checksum", kHint);
}

} // namespace

std::vector<uint32_t> readFx3Image(const std::string &path) {
    const Bytes bytes = readFirmware(path);
    checkHeader(path, bytes);
    if (bytes.size() % sizeof(uint32_t) != 0)
        throwWrongFile(path, "the size is not a multiple of four bytes", kHint);
    std::vector<uint32_t> words(bytes.size() / sizeof(uint32_t));
    std::memcpy(words.data(), bytes.data(), bytes.size());
    checkSections(path, words);
    return words;
}

} // namespace tool
