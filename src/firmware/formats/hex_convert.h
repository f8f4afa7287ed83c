#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "firmware/formats/hex_record.h"

namespace vexausb {

// Conversions of Intel HEX records.  The functions use nothing but their arguments: any thread.

// Appends the record in its binary encoding.
void appendHexRecord(std::vector<uint8_t> &to, const HexRecordView &record);
// The records in their binary encoding, without gaps and with the checksums that they have.
std::vector<uint8_t> hexRecordsToBinary(const HexRecords &records);

// Computes the addresses of data records, which depend on the extended-address records before them.
// To be given the records in their order; begins at address 0.
class HexAddress {
public:
    // Takes an extended-address record of either kind.
    void extend(const HexRecordView &record);
    uint32_t of(const HexRecordView &record) const { return base_ + record.address; }

private:
    uint32_t base_ = 0;
};

// The contents of the memory from address 0 on, from the records before the End Of File record.
// Throws std::runtime_error for an unknown type, and for an extended address of fewer than two
// bytes.
std::vector<uint8_t> hexRecordsToImage(const HexRecords &records);

} // namespace vexausb
