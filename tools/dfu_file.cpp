#include "dfu_file.h"

#include <cstddef>
#include <cstring>
#include <span>
#include <string_view>
#include <utility>

#include <fmt/format.h>
#include <zlib.h>

#include "firmware/formats/byte_order.h"
#include "firmware_file.h"

namespace tool {

/*
 * The suffix that DFU 1.1 defines. From the end of the file backwards: a checksum of everything
 * before it, the length of the suffix, "UFD", the version of the format, vendor, product, device
 * version. A longer suffix has more fields in front of these.
 */
namespace {

using vexausb::littleEndian16;
using vexausb::littleEndian32;

constexpr size_t kShortestSuffix = 16;
constexpr uint16_t kDfuSeVersion = 0x011A;

struct Suffix {
    explicit Suffix(const uint8_t *bytes)
        : product(littleEndian16(bytes + 2)),
          vendor(littleEndian16(bytes + 4)),
          version(littleEndian16(bytes + 6)),
          isOne(std::memcmp(bytes + 8, "UFD", 3) == 0),
          length(bytes[11]),
          checksum(littleEndian32(bytes + 12)) {}

    uint16_t product;
    uint16_t vendor;
    uint16_t version;
    bool isOne;
    size_t length;
    uint32_t checksum;
};

[[noreturn]] void throwDfuSe(const std::string &path) {
    throwWrongFile(
        path, "this is a DfuSe file",
        "That is another protocol, which goes by addresses; a plain binary file, with or "
        "without a DFU 1.1 suffix, can be loaded.");
}

// The standard omits the final inversion of the checksum.
bool isRight(const Suffix &suffix, std::span<const uint8_t> file) {
    return static_cast<uint32_t>(~crc32_z(0, file.data(), file.size() - sizeof(suffix.checksum))) ==
           suffix.checksum;
}

void checkSuffix(const std::string &path, const Suffix &suffix, std::span<const uint8_t> file) {
    if (!isRight(suffix, file))
        throwWrongFile(path, "the checksum of its DFU suffix is wrong",
                       "The file is damaged; get it again.");
    if (suffix.version == kDfuSeVersion)
        throwDfuSe(path);
    if (suffix.length < kShortestSuffix || suffix.length > file.size())
        throwWrongFile(path, fmt::format("a DFU suffix of {} bytes", suffix.length),
                       "It has 16 at least, and not more than the file; get the file again.");
    if (suffix.length == file.size())
        throwWrongFile(path, "there is nothing but a suffix in the file", "Nothing was sent.");
}

} // namespace

DfuFile readDfuFile(const std::string &path) {
    DfuFile file;
    file.image = readFirmware(path);
    Bytes &bytes = file.image;
    if (std::string_view(reinterpret_cast<const char *>(bytes.data()), bytes.size())
            .starts_with("DfuSe"))
        throwDfuSe(path);
    if (bytes.size() < kShortestSuffix)
        return file;
    const Suffix suffix(&bytes[bytes.size() - kShortestSuffix]);
    if (!suffix.isOne)
        return file;
    checkSuffix(path, suffix, bytes);
    file.vendor = suffix.vendor;
    file.product = suffix.product;
    bytes.resize(bytes.size() - suffix.length);
    return file;
}

} // namespace tool
