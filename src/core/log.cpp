#include "core/log.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string_view>

#include <pthread.h>
#include <unistd.h>

namespace vexausb {

namespace {

constexpr std::array<const char *, 4> kLevelNames{"", "error", "info", "debug"};
constexpr size_t kLineSize = 512; // longer lines are cut

// Any thread reads it; only the first init writes it.
std::atomic<LogLevel> currentLevel{LogLevel::Silent};

void writeWhole(const char *line, size_t length) {
    while (length > 0) {
        const ssize_t written = write(STDERR_FILENO, line, length);
        if (written == 0 || (written < 0 && errno != EINTR))
            return;
        const auto done = static_cast<size_t>(std::max<ssize_t>(written, 0));
        line += done;
        length -= done;
    }
}

// How many characters a snprintf that answered `result` has written into `size` bytes.
size_t writtenLength(int result, size_t size) {
    return result < 0 ? 0 : std::min(static_cast<size_t>(result), size - 1);
}

} // namespace

void readLogLevel() {
    const char *const value = std::getenv("VEXA_USB_LOG");
    const std::string_view name = value == nullptr ? "" : value;
    const auto *const found = std::find(kLevelNames.begin(), kLevelNames.end(), name);
    if (found != kLevelNames.end()) {
        currentLevel.store(static_cast<LogLevel>(found - kLevelNames.begin()));
        return;
    }
    currentLevel.store(LogLevel::Error);
    logLine(LogLevel::Error,
            "VEXA_USB_LOG is '%s': treated as error; it can be error, info or debug", value);
}

bool logs(LogLevel level) {
    return currentLevel.load(std::memory_order_relaxed) >= level;
}

void logLine(LogLevel level, const char *format, ...) noexcept {
    if (!logs(level))
        return;
    const int savedErrno = errno;
    std::array<char, kLineSize> line;
    std::array<char, 16> thread{}; // the longest name, with its terminator
    pthread_getname_np(pthread_self(), thread.data(), thread.size());
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    size_t length = writtenLength(
        std::snprintf(line.data(), line.size(),
                      "vexa-usb %lld.%06ld %s %s: ", static_cast<long long>(now.tv_sec),
                      now.tv_nsec / 1000, thread.data(), kLevelNames[static_cast<size_t>(level)]),
        line.size());
    va_list arguments;
    va_start(arguments, format);
    length +=
        writtenLength(std::vsnprintf(line.data() + length, line.size() - length, format, arguments),
                      line.size() - length);
    va_end(arguments);
    line[length] = '\n'; // in place of the terminator
    writeWhole(line.data(), length + 1);
    errno = savedErrno;
}

} // namespace vexausb
