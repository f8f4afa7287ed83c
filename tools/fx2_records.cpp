#include "fx2_records.h"

#include <algorithm>
#include <cstddef>
#include <numeric>
#include <utility>

#include <fmt/format.h>

#include "errors.h"
#include "firmware/formats/hex_convert.h"
#include "firmware_file.h"
#include "hex_file.h"

namespace tool {

namespace {

constexpr uint32_t kUpper = 0x3000; // from here on, a program on the chip writes
constexpr uint32_t kAddresses = 0x10000;

} // namespace

void Fx2Records::take(const vexausb::HexRecordView &record) {
    const auto begin = placer_.take(record);
    if (!begin)
        return;
    const uint64_t end = uint64_t{*begin} + record.data.size();
    if (end > kAddresses)
        throw Error(
            Exit::DataWrong,
            fmt::format("data from {:#x} to {:#x}, beyond the 64 KiB of an FX2", *begin, end - 1),
            "This file is for something else.");
    const size_t below = *begin < kUpper ? kUpper - *begin : SIZE_MAX;
    const size_t first = std::min(below, record.data.size());
    append(static_cast<uint16_t>(*begin), vexausb::kHexData, record.data.first(first));
    if (first != record.data.size())
        append(kUpper, vexausb::kHexData, record.data.subspan(first));
}

Bytes Fx2Records::finish(const std::string &path) {
    if (!placer_.ended())
        throwWrongFile(path, "there is no End Of File record",
                       "The file seems to be cut short; make it again.");
    append(0, vexausb::kHexEndOfFile, {});
    return std::move(image_);
}

void Fx2Records::append(uint16_t address, uint8_t type, std::span<const uint8_t> data) {
    const auto begin = static_cast<std::ptrdiff_t>(image_.size());
    vexausb::appendHexRecord(image_, {address, type, data, 0});
    image_.back() =
        static_cast<uint8_t>(-std::accumulate(image_.begin() + begin, image_.end(), 0U));
}

Bytes readFx2Image(const std::string &path) {
    Fx2Records records;
    readHexFile(path, [&](const auto &record, size_t /*line*/) { records.take(record); });
    return records.finish(path);
}

} // namespace tool
