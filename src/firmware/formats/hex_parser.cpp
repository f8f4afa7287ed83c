#include "firmware/formats/hex_parser.h"

#include <array>
#include <numeric>
#include <stdexcept>
#include <utility>

#include "firmware/formats/byte_order.h"
#include "firmware/formats/file_reader.h"
#include "firmware/formats/strings.h"

namespace vexausb {

namespace {

constexpr size_t kShortestLine = 11;

// The bytes of a record, with its checksum, add up to 0 modulo 256.
void verifySum(uint32_t sum) {
    if ((sum & 0xFFU) != 0)
        throw std::runtime_error("Invalid checksum");
}

// Stands for a character that is not a digit; no value of a digit has this bit.
constexpr uint16_t kNoDigit = 0x8000;

constexpr std::array<uint16_t, 256> digitValues(int shift) {
    std::array<uint16_t, 256> values{};
    values.fill(kNoDigit);
    for (size_t i = 0; i < 16; ++i) {
        const auto value = static_cast<uint16_t>(i << shift);
        values[static_cast<uint8_t>("0123456789ABCDEF"[i])] = value;
        values[static_cast<uint8_t>("0123456789abcdef"[i])] = value;
    }
    return values;
}

constexpr std::array<uint16_t, 256> kHighDigits = digitValues(4);
constexpr std::array<uint16_t, 256> kLowDigits = digitValues(0);

unsigned pairAt(const char *pair) {
    return static_cast<unsigned>(kHighDigits[static_cast<uint8_t>(pair[0])] |
                                 kLowDigits[static_cast<uint8_t>(pair[1])]);
}

unsigned digitAt(std::string_view text, size_t position) {
    return position < text.size() ? kLowDigits[static_cast<uint8_t>(text[position])] : kNoDigit;
}

// A pair whose second character is not a digit counts as its first: such files are in use.
uint8_t byteAt(std::string_view line, size_t position) {
    const std::string_view pair = line.substr(position, 2);
    const unsigned first = digitAt(pair, 0);
    const unsigned second = digitAt(pair, 1);
    if (first == kNoDigit)
        throw std::runtime_error("");
    return static_cast<uint8_t>(second == kNoDigit ? first : first << 4 | second);
}

std::string_view trimmedLine(std::string_view line) {
    const auto isWhiteSpace = [](char character) {
        return character == ' ' || (character >= '\t' && character <= '\r');
    };
    while (!line.empty() && isWhiteSpace(line.back()))
        line.remove_suffix(1);
    while (!line.empty() && isWhiteSpace(line.front()))
        line.remove_prefix(1);
    return line;
}

HexRecordView viewOf(const uint8_t *record) {
    const uint8_t *const data = record + kHexHeaderSize;
    return {bigEndian16(&record[1]), record[3], {data, record[0]}, data[record[0]]};
}

HexRecord ownedRecord(const HexRecordView &view) {
    return {view.address, view.type, {view.data.begin(), view.data.end()}, view.checksum};
}

} // namespace

std::optional<HexRecordView> HexTextReader::next() {
    while (rest_) {
        const size_t end = rest_->find('\n');
        const std::string_view text = trimmedLine(rest_->substr(0, end));
        ++lineNumber_;
        if (end == std::string_view::npos)
            rest_.reset();
        else
            rest_->remove_prefix(end + 1);
        if (!text.empty())
            return parseLine(text);
    }
    return std::nullopt;
}

HexRecordView HexTextReader::parseLine(std::string_view text) {
    if (text.size() < kShortestLine || text.size() % 2 == 0)
        throw std::runtime_error("");
    if (text.front() != ':')
        throw std::runtime_error("Hex record doesn't start with a colon");
    if (!decodeRegular(text))
        decodeLeniently(text);
    return viewOf(bytes_.data());
}

// Decodes a line that has whole pairs, as many as its count says; nearly all lines have.  False for
// others.
bool HexTextReader::decodeRegular(std::string_view text) {
    const size_t size = (text.size() - 1) / 2;
    if (size > bytes_.size())
        return false;
    unsigned all = 0;
    unsigned sum = 0;
    const char *pair = text.data() + 1;
    for (size_t i = 0; i < size; ++i, pair += 2) {
        const unsigned byte = pairAt(pair);
        all |= byte;
        sum += byte;
        bytes_[i] = static_cast<uint8_t>(byte);
    }
    if ((all & kNoDigit) != 0 || kHexHeaderSize + bytes_[0] + kHexChecksumSize != size)
        return false;
    verifySum(sum);
    return true;
}

// Takes the last pair for the checksum, even if there is something between the data and it.
void HexTextReader::decodeLeniently(std::string_view text) {
    const size_t beforeChecksum = kHexHeaderSize + byteAt(text, 1);
    for (size_t i = 0; i < beforeChecksum; ++i)
        bytes_[i] = byteAt(text, 1 + 2 * i);
    bytes_[beforeChecksum] = byteAt(text, text.size() - 2);
    verifySum(std::accumulate(bytes_.data(), &bytes_[beforeChecksum] + 1, 0U));
}

HexRecords parseHexText(std::string_view text) {
    HexRecords records;
    for (const std::string_view line : split(text, '\n')) {
        HexTextReader reader(line);
        if (const auto view = reader.next())
            records.push_back(ownedRecord(*view));
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
        const size_t recordSize = kHexHeaderSize + count + kHexChecksumSize;
        if (recordSize > size - offset)
            throw std::out_of_range("");
        verifySum(std::accumulate(record, record + recordSize, 0U));
        records.push_back(ownedRecord(viewOf(record)));
        offset += recordSize;
    }
    return records;
}

} // namespace vexausb
