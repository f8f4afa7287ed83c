#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "core/mutex.h"
#include "vexa_usb.h"

namespace endurance {

// Longer than anything takes on a slow and busy machine.
inline constexpr std::chrono::seconds kPatience{60};

/*
 * What a device's callback has received, and what it should.
 *
 * The library's thread for the device's events puts in, the user of the device takes out.  A
 * callback can run once more after the close, so an inbox is not destroyed or reused soon after.
 */
class Inbox {
public:
    using Clock = std::chrono::steady_clock;
    enum class News { Full, Error, Removed, Stopped, Silence };

    // The callback for vexa_usb_open(); `inbox` is the Inbox.
    static void callback(_vexa_usb_device_event event, void *inbox);

    // Forgets everything.
    void clear();
    // Waits for one more full buffer than `seen`, or for the stream's or the device's end.
    News waitForBuffer(uint64_t seen);
    // Waits for the end that is named, or the removal; Silence when neither comes.
    News waitForEnd(News end, std::chrono::seconds patience = kPatience);
    // These bytes are to come next.  They must not look like events of the stream.  What comes
    // before the first ones is left over from another user of the device; so these have to be long
    // enough not to be among that by chance.
    void expectBytes(std::vector<uint8_t> bytes);
    // Waits for all of them; how long ago they were announced as the last one came, or nothing when
    // they do not come or the device has gone.
    std::optional<Clock::duration> waitForBytes(std::chrono::seconds patience);

    struct Signs {
        bool started = false; // the stream
        bool error = false;   // of the stream
        bool stopped = false; // the stream
        bool removed = false;
        bool wrongByte = false; // one that was not due
    };
    // What has come until now.
    Signs signs();

private:
    bool has(News end) const REQUIRES(mutex_);
    void take(uint8_t byte) REQUIRES(mutex_);

    vexausb::Mutex mutex_;
    vexausb::Condition changed_;
    uint64_t full_ GUARDED_BY(mutex_) = 0;
    Signs signs_ GUARDED_BY(mutex_);
    bool foundFirst_ GUARDED_BY(mutex_) = false;    // the first bytes that were expected
    std::vector<uint8_t> bytes_ GUARDED_BY(mutex_); // expected
    size_t received_ GUARDED_BY(mutex_) = 0;        // of them
    Clock::time_point announced_ GUARDED_BY(mutex_);
    Clock::time_point complete_ GUARDED_BY(mutex_);
};

} // namespace endurance
