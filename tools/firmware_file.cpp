#include "firmware_file.h"

#include <span>

#include <fmt/format.h>

#include "errors.h"
#include "input.h"

namespace tool {

namespace {

constexpr size_t kPiece = 1U << 20;

} // namespace

void throwWrongFile(const std::string &path, const std::string &what, const std::string &hint) {
    throw Error(Exit::DataWrong, fmt::format("{}: {}", path == "-" ? "standard input" : path, what),
                hint);
}

void throwTooLarge(const std::string &path) {
    throwWrongFile(
        path, fmt::format("more than {} MiB, which is too large for firmware", kMostFirmware >> 20),
        "Nothing was sent. Check that it is the right file.");
}

Bytes readFirmware(const std::string &path) {
    Input input(path);
    const size_t expected = input.size();
    if (expected > kMostFirmware)
        throwTooLarge(path);
    Bytes bytes(expected + 1); // one more byte, to notice the end
    size_t filled = 0;
    while (const size_t count = input.read(std::span(bytes).subspan(filled))) {
        filled += count;
        if (filled > kMostFirmware)
            throwTooLarge(path);
        if (filled == bytes.size())
            bytes.resize(filled + kPiece);
    }
    if (filled == 0)
        throwWrongFile(path, "the file is empty", "Nothing was sent.");
    bytes.resize(filled);
    return bytes;
}

} // namespace tool
