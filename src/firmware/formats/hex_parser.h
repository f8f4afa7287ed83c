#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "firmware/formats/hex_record.h"

/*
 * Reads Intel HEX in its two encodings: lines of text, and the same fields as raw bytes, one record
 * after the other.  All records are returned, in the order of the input: those of unknown types,
 * too, and those after an End Of File record.
 *
 * Throws std::out_of_range for a record that is longer than the rest of its input,
 * std::ios_base::failure for a file that cannot be read, and std::runtime_error for other faults.
 */
namespace vexausb {

/*
 * Reads text one record at a time, so that the records need not all be in memory.
 *
 * Life: reads the caller's text, which must outlive it.  A record's data are in the reader, and
 * valid until the next call of next().
 *
 * Threads: one at a time.
 */
class HexTextReader {
public:
    explicit HexTextReader(std::string_view text) : rest_(text) {}

    // The next record; empty at the end.
    std::optional<HexRecordView> next();
    // The number of the line that was read last; the first is 1.
    size_t line() const { return lineNumber_; }

private:
    HexRecordView parseLine(std::string_view text);
    bool decodeRegular(std::string_view text);
    void decodeLeniently(std::string_view text);

    std::optional<std::string_view> rest_; // empty once the last line was read
    size_t lineNumber_ = 0;
    std::array<uint8_t, kLongestHexRecord> bytes_; // of the record, as in the binary encoding
};

// All records at once, in memory of their own.
HexRecords parseHexText(std::string_view text);
HexRecords parseHexFile(const std::string &path);
HexRecords parseHexBinary(const uint8_t *data, size_t size);

} // namespace vexausb
