#pragma once

namespace vexausb {

/*
 * What the library says of itself, on standard error, when the environment variable VEXA_USB_LOG
 * asks for it: error, info or debug.  Unset, the library is silent.
 *
 * A line has the monotonic clock's seconds, the name of the thread, the level, what happened, the
 * error's name and what to do about it.  It is written by one system call from the stack of
 * whichever thread logs: lines of several threads do not mix, and no memory or lock is needed.
 */
enum class LogLevel : int { Silent, Error, Info, Debug };

// Takes the level from the environment; the first init does so.
void readLogLevel();

// Whether lines of that level are written, for callers that would have to collect what to say.
bool logs(LogLevel level);

// Writes a line, without its newline, when lines of that level are written.  Leaves errno alone.
[[gnu::format(printf, 2, 3)]] void logLine(LogLevel level, const char *format, ...) noexcept;

} // namespace vexausb
