#pragma once

#include <cstdint>
#include <vector>

#include "firmware/hex_record.h"

namespace vexausb {

// The records as raw bytes, back to back, their checksums as they are.
std::vector<uint8_t> hexRecordsToBinary(const HexRecords &records);
// The memory from address 0 on, as of the records up to the End Of File record.
std::vector<uint8_t> hexRecordsToImage(const HexRecords &records);

} // namespace vexausb
