#include "recording.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

namespace sim {

Recording::Recording(const std::string &path)
    : descriptor_(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
    if (descriptor_ < 0)
        throw std::invalid_argument(fmt::format("file={}: {}", path, std::strerror(errno)));
    struct stat status {};
    if (fstat(descriptor_, &status) == 0 && S_ISREG(status.st_mode))
        size_ = static_cast<uint64_t>(status.st_size);
    if (size_ == 0) {
        close(descriptor_);
        throw std::invalid_argument(
            fmt::format("file={} is not a regular file with bytes in it", path));
    }
}

Recording::~Recording() {
    close(descriptor_);
}

bool Recording::fill(uint64_t position, std::span<uint8_t> room) const {
    while (!room.empty()) {
        const uint64_t offset = position % size_;
        const size_t length = std::min<uint64_t>(room.size(), size_ - offset);
        const ssize_t count = pread(descriptor_, room.data(), length, static_cast<off_t>(offset));
        if (count <= 0)
            return false;
        position += static_cast<uint64_t>(count);
        room = room.subspan(static_cast<size_t>(count));
    }
    return true;
}

} // namespace sim
