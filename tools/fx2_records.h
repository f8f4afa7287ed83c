#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "bytes.h"
#include "hex_placer.h"

namespace tool {

// Converts the records of an Intel HEX file to the raw bytes that the library's FX2 loader takes:
// data records with 16-bit addresses, then one End Of File record. The chip is written in two ways,
// below and above one address; a record that crosses it is split.
class Fx2Records {
public:
    void take(const vexausb::HexRecordView &record);
    // Returns all bytes; `path` is for the error when there is no End Of File record.
    Bytes finish(const std::string &path);

private:
    void append(uint16_t address, uint8_t type, std::span<const uint8_t> data);

    HexPlacer placer_;
    Bytes image_;
};

Bytes readFx2Image(const std::string &path);

} // namespace tool
