#pragma once

#include <cstdint>
#include <optional>

#include "firmware/formats/hex_convert.h"
#include "firmware/formats/hex_record.h"

namespace tool {

// Follows the records of an Intel HEX file: where their data go, and where the file ends.
class HexPlacer {
public:
    // The address of a data record that has data and is not behind the end.  Start addresses are
    // passed over; throws for what nobody can place.
    std::optional<uint32_t> take(const vexausb::HexRecordView &record);
    // By an End Of File record.
    bool ended() const { return ended_; }

private:
    uint32_t place(const vexausb::HexRecordView &record) const;

    vexausb::HexAddress address_;
    bool ended_ = false;
};

} // namespace tool
