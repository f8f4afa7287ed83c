#include "hex_text.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstddef>
#include <iterator>

#include <fmt/format.h>

#include "errors.h"

namespace tool {

namespace {

constexpr size_t kDumpWidth = 16;

std::string dumpLine(size_t offset, std::span<const uint8_t> bytes) {
    std::string pairs;
    std::string characters;
    for (const uint8_t byte : bytes) {
        pairs += fmt::format("{:02x} ", byte);
        characters += std::isprint(byte) != 0 ? static_cast<char>(byte) : '.';
    }
    return fmt::format("{:08x}  {:<48} |{}|\n", offset, pairs, characters);
}

} // namespace

Bytes parseHex(const std::string &text) {
    std::string digits;
    std::copy_if(text.begin(), text.end(), std::back_inserter(digits),
                 [](unsigned char character) { return std::isspace(character) == 0; });
    Bytes bytes;
    for (size_t i = 0; i < digits.size(); i += 2) {
        uint8_t value = 0;
        const char *const last = digits.data() + std::min(i + 2, digits.size());
        const auto [end, error] = std::from_chars(digits.data() + i, last, value, 16);
        if (error != std::errc() || end != digits.data() + i + 2)
            throw Error(Exit::Usage, fmt::format("'{}' is not a row of hexadecimal pairs", text),
                        "Write the bytes like 01ff3c or '01 ff 3c'.");
        bytes.push_back(value);
    }
    return bytes;
}

std::string hexText(std::span<const uint8_t> bytes) {
    std::string text;
    for (const uint8_t byte : bytes)
        text += fmt::format("{:02x}", byte);
    return text;
}

void printHexDump(std::span<const uint8_t> bytes) {
    for (size_t i = 0; i < bytes.size(); i += kDumpWidth)
        fmt::print("{}", dumpLine(i, bytes.subspan(i, std::min(kDumpWidth, bytes.size() - i))));
}

} // namespace tool
