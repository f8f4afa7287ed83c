#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "firmware/hex_record.h"

namespace vexausb {

HexRecords parseHexText(std::string_view text);
HexRecords parseHexFile(const std::string &path);
HexRecords parseHexBinary(const uint8_t *data, size_t size);

} // namespace vexausb
