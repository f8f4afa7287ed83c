#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "firmware/formats/hex_record.h"

namespace vexausb {

// What becomes of Intel HEX records; functions of their arguments alone.

// Adds one record in raw bytes.
void appendHexRecord(std::vector<uint8_t> &to, const HexRecordView &record);
// The records as raw bytes, back to back, their checksums as they are.
std::vector<uint8_t> hexRecordsToBinary(const HexRecords &records);

// Where data records go, as of the extended addresses before them.  Fed with the records in their
// order; begins at address 0.
class HexAddress {
public:
    // Takes an extended-address record of either kind.
    void extend(const HexRecordView &record);
    uint32_t of(const HexRecordView &record) const { return base_ + record.address; }

private:
    uint32_t base_ = 0;
};

// The memory from address 0 on, as of the records up to the End Of File record.  Throws
// std::runtime_error for a type that it does not know and for an extended address of one byte.
std::vector<uint8_t> hexRecordsToImage(const HexRecords &records);

} // namespace vexausb
