#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "bytes.h"

namespace tool {

// Hexadecimal pairs, with or without white space between them.
Bytes parseHex(const std::string &text);
std::string hexText(std::span<const uint8_t> bytes);
// Sixteen bytes a line, with offsets and characters.
void printHexDump(std::span<const uint8_t> bytes);

} // namespace tool
