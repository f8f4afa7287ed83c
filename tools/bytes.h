#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace tool {

using Bytes = std::vector<uint8_t>;

// Hexadecimal pairs, with or without white space between them.
Bytes parseHex(const std::string &text);
std::string hexText(std::span<const uint8_t> bytes);
// Sixteen bytes a line, with offsets and characters.
std::string hexDump(std::span<const uint8_t> bytes);

// All of a file; "-" is standard input.
Bytes readInput(const std::string &path);

// Writes to a file, or to standard output for "-"; errors say which file and why.
class Output {
public:
    explicit Output(const std::string &path);
    ~Output();
    Output(const Output &) = delete;
    Output &operator=(const Output &) = delete;

    void write(std::span<const uint8_t> bytes);
    // Reports what only shows when a file is closed.
    void close();

private:
    const std::string name;
    int descriptor;
};

} // namespace tool
