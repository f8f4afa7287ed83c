#include "input.h"

#include <cerrno>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "amounts.h"
#include "errors.h"
#include "progress.h"

namespace tool {

namespace {

constexpr size_t kReadPiece = 1U << 16;

bool isStandard(const std::string &path) {
    return path == "-";
}

[[noreturn]] void throwTooLarge(const std::string &path) {
    throw Error(Exit::Usage,
                fmt::format("{} holds more than {}, which is the most that is read into memory",
                            isStandard(path) ? "standard input" : path, sizeText(kMostInMemory)),
                "Check that it is the right file, or send it in parts.");
}

} // namespace

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
    Bytes bytes(input.size() + 1); // one more byte, to notice the end
    if (input.size() == 0)
        bytes.reserve(kMostInMemory + kReadPiece); // avoids copies; unused pages cost nothing
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

} // namespace tool
