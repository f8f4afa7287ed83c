#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "firmware/hex_record.h"

namespace vexausb {

// Reads text record by record.
class HexTextReader {
public:
    explicit HexTextReader(std::string_view text) : rest_(text) {}

    // Nothing at the end; the data are good until the next call.
    std::optional<HexRecordView> next();
    // The line that was read last, from 1.
    size_t line() const { return lineNumber_; }

private:
    HexRecordView parseLine(std::string_view text);
    bool decodeRegular(std::string_view text);
    void decodeLeniently(std::string_view text);

    std::optional<std::string_view> rest_; // nothing behind the last line
    size_t lineNumber_ = 0;
    std::array<uint8_t, kLongestHexRecord> bytes_; // of the record, as in the binary form
};

HexRecords parseHexText(std::string_view text);
HexRecords parseHexFile(const std::string &path);
HexRecords parseHexBinary(const uint8_t *data, size_t size);

} // namespace vexausb
