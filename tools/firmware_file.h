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
void readHexFile(const std::string &path,
                 const std::function<void(const vexausb::HexRecordView &)> &take);
std::vector<uint32_t> readFx3Image(const std::string &path);
// Without the suffix that such files may have, which is not for the device.
Bytes readDfuImage(const std::string &path);
Bytes readSplImage(const std::string &path);
Bytes readUbootImage(const std::string &path);

} // namespace tool
