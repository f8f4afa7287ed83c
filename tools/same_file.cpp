#include "same_file.h"

#include <filesystem>

#include <sys/stat.h>
#include <unistd.h>

namespace tool {

namespace {

bool look(const std::string &path, struct stat &status) {
    return (path == "-" ? fstat(STDOUT_FILENO, &status) : stat(path.c_str(), &status)) == 0;
}

// Follows links to files that do not exist yet, too.
std::filesystem::path resolved(std::filesystem::path path) {
    constexpr int kMostLinks = 40; // as many as the system follows
    for (int i = 0; i < kMostLinks && is_symlink(symlink_status(path)); ++i)
        path = path.parent_path() / read_symlink(path);
    return weakly_canonical(absolute(path));
}

} // namespace

bool isSameFile(const std::string &path, const std::string &other) {
    struct stat status {};
    struct stat otherStatus {};
    const bool there = look(path, status);
    if (there != look(other, otherStatus))
        return false;
    if (there)
        return status.st_dev == otherStatus.st_dev && status.st_ino == otherStatus.st_ino;
    return resolved(path) == resolved(other);
}

} // namespace tool
