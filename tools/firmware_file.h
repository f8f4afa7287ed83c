#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "bytes.h"
#include "firmware/hex_record.h"

namespace tool {

// Read firmware files and check them; errors say what is wrong, and where.

// Gives the records of an Intel HEX file one after the other.
using HexTaker = std::function<void(const vexausb::HexRecordView &)>;
void readHexFile(const std::string &path, const HexTaker &take);
// The records of such a file that an FX2 is to be loaded with, as raw bytes.
Bytes readFx2Image(const std::string &path);
std::vector<uint32_t> readFx3Image(const std::string &path);
// Without the suffix that such files may have, which is not for the device.
Bytes readDfuImage(const std::string &path);
Bytes readSplImage(const std::string &path);
Bytes readUbootImage(const std::string &path);

} // namespace tool
