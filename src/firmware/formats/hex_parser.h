#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "firmware/formats/hex_record.h"

/*
 * Reads Intel HEX in its two encodings: lines of text, and the same fields as raw bytes, record
 * after record.  Records are given as they come: in the order of the input, of whatever type, also
 * those behind an End Of File record.
 *
 * Failures are thrown and leave nothing behind: std::out_of_range for a record that is longer than
 * its input, std::runtime_error for the rest, std::ios_base::failure for a file that cannot be
 * read.
 */
namespace vexausb {

/*
 * Reads text record by record, without memory for the whole.
 *
 * Life: reads the caller's text, which must outlive it.  A record's data lie in the reader, until
 * the next call of next().
 *
 * Threads: one at a time.
 */
class HexTextReader {
public:
    explicit HexTextReader(std::string_view text) : rest_(text) {}

    // Nothing at the end.
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

// All records at once, in memory of their own.
HexRecords parseHexText(std::string_view text);
HexRecords parseHexFile(const std::string &path);
HexRecords parseHexBinary(const uint8_t *data, size_t size);

} // namespace vexausb
