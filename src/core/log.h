#pragma once

namespace vexausb {

/*
 * The library's log: lines on standard error, of the level that the environment variable
 * VEXA_USB_LOG names (error, info or debug).  If it is unset, nothing is written.
 *
 * A line has the monotonic clock's seconds, the name of the thread, the level, what happened, the
 * error's name and what to do about it.  It is made on the stack of the thread that logs, and
 * written by one system call: lines of several threads do not mix, and neither a lock nor allocated
 * memory is needed.
 */
enum class LogLevel : int { Silent, Error, Info, Debug };

// Takes the level from the environment.  The first init calls it.
void readLogLevel();

// Whether lines of that level are written.  For callers that can save the work of making one.
bool logs(LogLevel level);

// Writes a line if lines of that level are written; `format` has no newline.  Keeps errno.
[[gnu::format(printf, 2, 3)]] void logLine(LogLevel level, const char *format, ...) noexcept;

} // namespace vexausb
