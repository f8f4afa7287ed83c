#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "vexa_usb.h"

namespace tool {

// Carries a stream's events from the device's callback to the thread that drains the stream.
// Owned by both; `mutex` guards the counts.
class StreamEvents {
public:
    enum class Next : uint8_t { BufferFull, Failed, Removed, Nothing };

    void post(_vexa_usb_device_event event) {
        const std::lock_guard lock(mutex);
        if (event == VEXA_USB_DEVICE_EVENT_DATA_STREAM_BUFFER_FULL)
            ++full;
        else if (event == VEXA_USB_DEVICE_EVENT_DATA_STREAM_ERROR)
            failed = true;
        else if (event == VEXA_USB_DEVICE_EVENT_REMOVED)
            removed = true;
        changed.notify_one();
    }

    // The next event; full buffers come before the failure that followed them.
    Next wait(std::chrono::milliseconds atMost) {
        std::unique_lock lock(mutex);
        changed.wait_for(lock, atMost, [this]() { return full > 0 || failed || removed; });
        if (removed)
            return Next::Removed;
        if (full > 0) {
            --full;
            return Next::BufferFull;
        }
        return failed ? Next::Failed : Next::Nothing;
    }

private:
    std::mutex mutex;
    std::condition_variable changed;
    uint64_t full = 0;
    bool failed = false;
    bool removed = false;
};

} // namespace tool
