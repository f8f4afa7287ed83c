#pragma once

#include <cstdint>

#include "stream_pattern.h"
#include "support/event_log.h"
#include "vexa_usb.h"

namespace test {

// Drains an active stream of the simulated instrument, which began at position 0, and looks at
// every byte.  Returns the bytes that were right; fewer than asked for when one was wrong or the
// stream ended.
class StreamReader {
public:
    StreamReader(_vexa_usb_device *device, EventLog &events)
        : device_(device),
          events_(events),
          seen_(events.count(VEXA_USB_DEVICE_EVENT_DATA_STREAM_BUFFER_FULL)),
          errors_(events.count(VEXA_USB_DEVICE_EVENT_DATA_STREAM_ERROR)) {}

    uint64_t read(uint64_t bytes) {
        uint64_t position = 0;
        uint8_t *data = nullptr;
        uint64_t size = 0;
        while (position < bytes &&
               events_.waitForAny({{VEXA_USB_DEVICE_EVENT_DATA_STREAM_BUFFER_FULL, ++seen_},
                                   {VEXA_USB_DEVICE_EVENT_DATA_STREAM_ERROR, errors_ + 1}}) &&
               events_.count(VEXA_USB_DEVICE_EVENT_DATA_STREAM_BUFFER_FULL) >= seen_ &&
               vexa_usb_data_stream_buffer_lock(device_, &data, &size) == 0) {
            const uint64_t right = sim::firstPatternError(position, {data, size});
            position += right;
            vexa_usb_data_stream_buffer_unlock(device_);
            if (right != size)
                break;
        }
        return position < bytes ? position : bytes;
    }

private:
    _vexa_usb_device *const device_;
    EventLog &events_;
    uint64_t seen_;
    const uint64_t errors_; // of streams before
};

} // namespace test
