#pragma once

#include <cstdint>
#include <optional>

#include "firmware/formats/hex_convert.h"
#include "firmware/formats/hex_record.h"

namespace tool {

// Computes the addresses of the records of an Intel HEX file, and notes where the file ends.
class HexPlacer {
public:
    // Returns the address of a data record; nothing for other records, for empty ones and for those
    // behind the end. Throws when a record has no valid address.
    std::optional<uint32_t> take(const vexausb::HexRecordView &record);
    // Whether there was an End Of File record.
    bool ended() const { return ended_; }

private:
    uint32_t place(const vexausb::HexRecordView &record) const;

    vexausb::HexAddress address_;
    bool ended_ = false;
};

} // namespace tool
