#include "hex_placer.h"

#include <fmt/format.h>

#include "errors.h"

namespace tool {

namespace {

constexpr const char *kHint = "The file may be damaged; have the tool that wrote it do so again.";

} // namespace

std::optional<uint32_t> HexPlacer::take(const vexausb::HexRecordView &record) {
    if (ended_)
        return std::nullopt;
    switch (record.type) {
    case vexausb::kHexData:
        return record.data.empty() ? std::nullopt : std::optional(place(record));
    case vexausb::kHexEndOfFile:
        ended_ = true;
        return std::nullopt;
    case vexausb::kHexExtendedSegmentAddress:
    case vexausb::kHexExtendedLinearAddress:
        if (record.data.size() != 2)
            throw Error(Exit::DataWrong,
                        fmt::format("the length of an extended address is {} instead of two",
                                    record.data.size()),
                        kHint);
        address_.extend(record);
        return std::nullopt;
    case vexausb::kHexStartSegmentAddress:
    case vexausb::kHexStartLinearAddress:
        return std::nullopt;
    default:
        throw Error(Exit::DataWrong, fmt::format("unknown record type {:#04x}", record.type),
                    kHint);
    }
}

uint32_t HexPlacer::place(const vexausb::HexRecordView &record) const {
    const uint32_t begin = address_.of(record);
    if (record.data.size() - 1 > UINT32_MAX - begin)
        throw Error(Exit::DataWrong, "the data run past the highest address, 0xffffffff", kHint);
    return begin;
}

} // namespace tool
