#include "firmware/hex_parser.h"

#include <charconv>
#include <numeric>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "firmware/file_reader.h"
#include "firmware/strings.h"

namespace vexausb {

/*
 * Intel HEX in its two encodings: lines of text, and the same fields as raw bytes, record after
 * record.  Records are given as they come: in the order of the input, of whatever type, also those
 * behind an End Of File record.
 *
 * Failures are thrown and leave nothing behind: std::out_of_range for a record that is longer than
 * its input, std::runtime_error for the rest.
 */
namespace {

constexpr std::string_view kWhiteSpace = " \t\n\v\f\r";
constexpr size_t kShortestLine = 11;
constexpr size_t kFirstData = 9;        // in a line
constexpr size_t kBinaryHeaderSize = 4; // count, address, type
constexpr size_t kChecksumSize = 1;

uint16_t addressOf(uint8_t high, uint8_t low) {
    return static_cast<uint16_t>(high << 8 | low);
}

// The record's bytes and its checksum add up to 0, modulo 256.
void verifyChecksum(const HexRecord &record) {
    const uint32_t fields = static_cast<uint32_t>(record.data.size()) + (record.address >> 8U) +
                            (record.address & 0xFFU) + record.type + record.checksum;
    if ((std::accumulate(record.data.begin(), record.data.end(), fields) & 0xFFU) != 0)
        throw std::runtime_error("Invalid checksum");
}

// One digit counts as a number, too: files with such a pair are in use.
uint8_t byteAt(std::string_view line, size_t position) {
    const std::string_view pair = line.substr(position, 2);
    uint8_t value = 0;
    if (std::from_chars(pair.data(), pair.data() + pair.size(), value, 16).ec != std::errc())
        throw std::runtime_error("");
    return value;
}

std::string_view trimmedLine(std::string_view line) {
    const size_t first = line.find_first_not_of(kWhiteSpace);
    if (first == std::string_view::npos)
        return {};
    return line.substr(first, line.find_last_not_of(kWhiteSpace) + 1 - first);
}

HexRecord parseLine(std::string_view line) {
    if (line.size() < kShortestLine || line.size() % 2 == 0)
        throw std::runtime_error("");
    if (line.front() != ':')
        throw std::runtime_error("Hex record doesn't start with a colon");
    const size_t count = byteAt(line, 1);
    const uint16_t address = addressOf(byteAt(line, 3), byteAt(line, 5));
    const uint8_t type = byteAt(line, 7);
    std::vector<uint8_t> data(count);
    for (size_t i = 0; i < count; ++i)
        data[i] = byteAt(line, kFirstData + 2 * i);
    HexRecord record(address, type, std::move(data), byteAt(line, line.size() - 2));
    verifyChecksum(record);
    return record;
}

} // namespace

HexRecords parseHexText(std::string_view text) {
    HexRecords records;
    for (const std::string_view piece : split(text, '\n')) {
        const std::string_view line = trimmedLine(piece);
        if (!line.empty())
            records.push_back(parseLine(line));
    }
    return records;
}

HexRecords parseHexFile(const std::string &path) {
    return parseHexText(readFileToString(path));
}

HexRecords parseHexBinary(const uint8_t *data, size_t size) {
    HexRecords records;
    for (size_t offset = 0; offset < size;) {
        const uint8_t *const record = data + offset;
        const size_t count = record[0];
        const size_t recordSize = kBinaryHeaderSize + count + kChecksumSize;
        if (recordSize > size - offset)
            throw std::out_of_range("");
        const uint8_t *const payload = record + kBinaryHeaderSize;
        records.emplace_back(addressOf(record[1], record[2]), record[3],
                             std::vector<uint8_t>(payload, payload + count), payload[count]);
        verifyChecksum(records.back());
        offset += recordSize;
    }
    return records;
}

} // namespace vexausb
