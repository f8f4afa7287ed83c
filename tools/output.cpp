#include "output.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include "errors.h"

namespace tool {

namespace {

bool isStandard(const std::string &path) {
    return path == "-";
}

// A regular file, or none yet; not a device or a pipe.
bool isReplaceable(const std::string &path) {
    struct stat status {};
    return !isStandard(path) && (stat(path.c_str(), &status) != 0 || S_ISREG(status.st_mode));
}

} // namespace

Output::Output(const std::string &path, Existing existing)
    : isStandard_(isStandard(path)), name_(isStandard_ ? "standard output" : path) {
    if (existing == Existing::Replace && isReplaceable(path)) {
        target_ = std::filesystem::weakly_canonical(path);
        openTemporary();
    } else {
        descriptor_ = isStandard_ ? dup(STDOUT_FILENO)
                                  : open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
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

// It gets the mode of the file that it replaces, or the usual mode of a new file.
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

// A pipe or a device has nothing to empty, and what the shell has opened it may append to.
void Output::overwrite() {
    struct stat status {};
    if (!isStandard_ && fstat(descriptor_, &status) == 0 && S_ISREG(status.st_mode) &&
        ftruncate(descriptor_, 0) != 0)
        throwSystemError("cannot write " + name_);
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
