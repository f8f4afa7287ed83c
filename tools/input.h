#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "bytes.h"

namespace tool {

// Reads a file, or standard input for "-"; errors say which file and why.
class Input {
public:
    explicit Input(const std::string &path);
    ~Input();
    Input(const Input &) = delete;
    Input &operator=(const Input &) = delete;

    // The size of a regular file; may be 0 for a pipe or a device.
    size_t size() const;
    // Returns how much was read; 0 at the end.
    size_t read(std::span<uint8_t> room);

private:
    const std::string name_;
    const int descriptor_;
};

// Reads a whole file. One that is too large for memory, or endless, is refused.
Bytes readInput(const std::string &path);

} // namespace tool
