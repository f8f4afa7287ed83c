#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>

namespace tool {

// Exit statuses, as --help lists them.
enum class Exit : int {
    Success = 0,
    Failed = 1,
    Usage = 2,
    NoDevice = 3,
    CannotOpen = 4,
    Timeout = 5,
    DataWrong = 6,
};

extern const char *const kExitHelp;

class Error : public std::runtime_error {
public:
    Error(Exit exitStatus, const std::string &what, std::string whatNext = {})
        : std::runtime_error(what), exit(exitStatus), hint(std::move(whatNext)) {}

    const Exit exit;
    const std::string hint; // what to do about it; may be empty
};

Exit exitFor(int32_t status);

// Throws the error that a status of the library stands for; returns on success.
void check(int32_t status, const std::string &action);

// A failed call of the operating system, from errno.
[[noreturn]] void throwSystemError(const std::string &action);

} // namespace tool
