#include "node_users.h"

#include <filesystem>
#include <fstream>
#include <system_error>

#include <fmt/format.h>
#include <unistd.h>

namespace tool {

namespace {

namespace fs = std::filesystem;

std::string nameOf(const fs::path &process) {
    std::ifstream file(process / "comm");
    std::string name;
    std::getline(file, name);
    return name;
}

} // namespace

bool hasNodeOpen(const std::string &process, const std::string &node) {
    std::error_code error;
    for (fs::directory_iterator entry(fs::path("/proc") / process / "fd", error), end;
         !error && entry != end; entry.increment(error)) {
        std::error_code unreadable;
        if (fs::read_symlink(entry->path(), unreadable) == node)
            return true;
    }
    return false;
}

std::vector<std::string> otherUsersOf(const std::string &node) {
    std::vector<std::string> users;
    std::error_code error;
    for (fs::directory_iterator entry("/proc", error), end; !error && entry != end;
         entry.increment(error)) {
        const std::string process = entry->path().filename();
        const bool isProcess = process.find_first_not_of("0123456789") == std::string::npos;
        if (isProcess && process != std::to_string(getpid()) && hasNodeOpen(process, node))
            users.push_back(fmt::format("{} ({})", process, nameOf(entry->path())));
    }
    return users;
}

} // namespace tool
