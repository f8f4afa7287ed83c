#pragma once

#include <cstddef>
#include <functional>
#include <string>

#include "firmware/formats/hex_record.h"

namespace tool {

// Passes each record of an Intel HEX file, with its line number, to `take`. Errors name the line,
// also those that `take` throws.
using HexTaker = std::function<void(const vexausb::HexRecordView &, size_t line)>;
void readHexFile(const std::string &path, const HexTaker &take);

} // namespace tool
