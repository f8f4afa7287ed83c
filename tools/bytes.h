#pragma once

#include <cstddef>
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
void printHexDump(std::span<const uint8_t> bytes);

// Reads a file, or standard input for "-"; errors say which file and why.
class Input {
public:
    explicit Input(const std::string &path);
    ~Input();
    Input(const Input &) = delete;
    Input &operator=(const Input &) = delete;

    // Of a regular file; for a pipe or a device it may be 0.
    size_t size() const;
    // Returns how much was read; 0 at the end.
    size_t read(std::span<uint8_t> room);

private:
    const std::string name_;
    const int descriptor_;
};

// All of a file; one that is too large to be held in memory is refused, endless ones included.
Bytes readInput(const std::string &path);

// Writes to a file, or to standard output for "-"; errors say which file and why.
class Output {
public:
    // An existing file is emptied at once, or is replaced only when all has been written.
    enum class Existing : uint8_t { Overwrite, Replace };

    explicit Output(const std::string &path, Existing existing = Existing::Overwrite);
    ~Output();
    Output(const Output &) = delete;
    Output &operator=(const Output &) = delete;

    void write(std::span<const uint8_t> bytes);
    // Throws as a write would when nobody is left to read what is written.
    void throwIfUnread() const;
    // Reports what only shows when a file is closed.
    void close();

private:
    void openTemporary();
    void finishTemporary();

    const std::string name_;
    std::string target_;    // what is replaced in the end, links followed; empty: nothing
    std::string temporary_; // beside it
    int descriptor_ = -1;
};

} // namespace tool
