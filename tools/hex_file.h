#pragma once

#include <cstddef>
#include <functional>
#include <string>

#include "firmware/formats/hex_record.h"

namespace tool {

// Gives the records of an Intel HEX file one after the other, with their lines; errors, those that
// are thrown by the taker included, say which line it is.
using HexTaker = std::function<void(const vexausb::HexRecordView &, size_t line)>;
void readHexFile(const std::string &path, const HexTaker &take);

} // namespace tool
