#include "bytes.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <utility>

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include "amounts.h"
#include "errors.h"
#include "progress.h"

namespace tool {

namespace {

constexpr size_t kReadPiece = 1U << 16;
constexpr size_t kDumpWidth = 16;

bool isStandard(const std::string &path) {
    return path == "-";
}

// A file, or nothing yet; not a device or a pipe.
bool isReplaceable(const std::string &path) {
    struct stat status {};
    return !isStandard(path) && (stat(path.c_str(), &status) != 0 || S_ISREG(status.st_mode));
}

[[noreturn]] void throwTooLarge(const std::string &path) {
    throw Error(Exit::Usage,
                fmt::format("{} holds more than {}, which is the most that is read into memory",
                            isStandard(path) ? "standard input" : path, sizeText(kMostInMemory)),
                "Check that it is the right file, or send it in parts.");
}

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

Input::Input(const std::string &path)
    : name_(isStandard(path) ? "standard input" : path),
      descriptor_(isStandard(path) ? dup(STDIN_FILENO) : open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
    if (descriptor_ < 0)
        throwSystemError("cannot read " + name_);
}

Input::~Input() {
    ::close(descriptor_);
}

size_t Input::size() const {
    struct stat status {};
    return fstat(descriptor_, &status) == 0 ? static_cast<size_t>(status.st_size) : 0;
}

size_t Input::read(std::span<uint8_t> room) {
    ssize_t count = 0;
    do {
        count = ::read(descriptor_, room.data(), room.size());
    } while (count < 0 && errno == EINTR);
    if (count < 0)
        throwSystemError("cannot read " + name_);
    return static_cast<size_t>(count);
}

Bytes readInput(const std::string &path) {
    Input input(path);
    if (input.size() > kMostInMemory)
        throwTooLarge(path);
    Bytes bytes(input.size() + 1); // room to see the end of a file
    if (input.size() == 0)
        bytes.reserve(kMostInMemory +
                      kReadPiece); // no copy of what grows: pages unused cost nothing
    size_t filled = 0;
    while (const size_t count = input.read(std::span(bytes).subspan(filled))) {
        filled += count;
        if (filled > kMostInMemory)
            throwTooLarge(path);
        if (filled == bytes.size())
            bytes.resize(filled + kReadPiece);
    }
    bytes.resize(filled);
    return bytes;
}

Output::Output(const std::string &path, Existing existing)
    : name_(isStandard(path) ? "standard output" : path) {
    if (existing == Existing::Replace && isReplaceable(path)) {
        target_ = std::filesystem::weakly_canonical(path);
        openTemporary();
    } else {
        descriptor_ = isStandard(path)
                          ? dup(STDOUT_FILENO)
                          : open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    }
    if (descriptor_ < 0)
        throwSystemError("cannot write " + name_);
}

Output::~Output() {
    if (descriptor_ >= 0)
        ::close(descriptor_);
    if (!temporary_.empty())
        unlink(temporary_.c_str());
}

// With the mode of what it will replace, or that of any new file.
void Output::openTemporary() {
    temporary_ = target_ + ".XXXXXX";
    descriptor_ = mkostemp(temporary_.data(), O_CLOEXEC);
    if (descriptor_ < 0) {
        temporary_.clear();
        return;
    }
    struct stat status {};
    const mode_t mask = umask(0);
    umask(mask);
    fchmod(descriptor_,
           stat(target_.c_str(), &status) == 0 ? status.st_mode & 07777 : 0666 & ~mask);
}

void Output::finishTemporary() {
    if (std::rename(temporary_.c_str(), target_.c_str()) != 0)
        throwSystemError("cannot write " + name_);
    temporary_.clear();
}

void Output::write(std::span<const uint8_t> bytes) {
    while (!bytes.empty()) {
        const ssize_t count = ::write(descriptor_, bytes.data(), bytes.size());
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            throwSystemError("cannot write " + name_);
        bytes = bytes.subspan(static_cast<size_t>(count));
    }
}

void Output::throwIfUnread() const {
    pollfd state{descriptor_, 0, 0};
    if (poll(&state, 1, 0) > 0 && (state.revents & (POLLERR | POLLHUP)) != 0) {
        errno = EPIPE;
        throwSystemError("cannot write " + name_);
    }
}

void Output::close() {
    if (::close(std::exchange(descriptor_, -1)) != 0)
        throwSystemError("cannot write " + name_);
    if (!temporary_.empty())
        finishTemporary();
}

} // namespace tool
