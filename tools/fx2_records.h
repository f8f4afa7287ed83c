#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "bytes.h"
#include "hex_placer.h"

namespace tool {

// Makes the records of an Intel HEX file those that the library's FX2 loader takes, as raw bytes:
// data records and one End Of File record, no address but the 16 bits of a record, and no record
// on both sides of the address from where the chip is written in another way.
class Fx2Records {
public:
    void take(const vexausb::HexRecordView &record);
    // All of them; `path` is for the error when the file does not end.
    Bytes finish(const std::string &path);

private:
    void append(uint16_t address, uint8_t type, std::span<const uint8_t> data);

    HexPlacer placer_;
    Bytes image_;
};

Bytes readFx2Image(const std::string &path);

} // namespace tool
