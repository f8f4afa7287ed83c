#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>

#include "stream_pattern.h"
#include "vexa_usb.h"

namespace test {

// Counts a device's events; made for the life of the process, since callbacks may come late.
class Events {
public:
    static Events &make() {
        static auto *const all = new std::map<int, Events>;
        return (*all)[static_cast<int>(all->size())];
    }
    static void callback(_vexa_usb_device_event event, void *data) {
        auto &self = *static_cast<Events *>(data);
        const std::lock_guard lock(self.mutex);
        ++self.counts[event];
        self.changed.notify_all();
    }
    bool wait(_vexa_usb_device_event event, uint64_t count = 1) { return wait({{event, count}}); }
    // For any of these events to have come that often.
    bool wait(const std::map<_vexa_usb_device_event, uint64_t> &wanted) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(30), [&]() {
            return std::any_of(wanted.begin(), wanted.end(),
                               [&](const auto &one) { return counts[one.first] >= one.second; });
        });
    }
    uint64_t count(_vexa_usb_device_event event) {
        const std::lock_guard lock(mutex);
        return counts[event];
    }

private:
    std::mutex mutex;
    std::condition_variable changed;
    std::map<_vexa_usb_device_event, uint64_t> counts;
};

// Drains an active stream of the simulated instrument, which began at position 0, and looks at
// every byte.  Returns the bytes that were right; fewer than asked for when one was wrong or the
// stream ended.
class StreamReader {
public:
    StreamReader(_vexa_usb_device *opened, Events &deviceEvents)
        : device(opened),
          events(deviceEvents),
          seen(deviceEvents.count(VEXA_USB_DEVICE_EVENT_DATA_STREAM_BUFFER_FULL)) {}

    uint64_t read(uint64_t bytes) {
        const uint64_t end = position + bytes;
        while (position < end) {
            uint8_t *data = nullptr;
            uint64_t size = 0;
            if (!events.wait(VEXA_USB_DEVICE_EVENT_DATA_STREAM_BUFFER_FULL, seen + 1) ||
                vexa_usb_data_stream_buffer_lock(device, &data, &size) != 0)
                break;
            ++seen;
            const uint64_t right = sim::firstPatternError(position, {data, size});
            position += right;
            vexa_usb_data_stream_buffer_unlock(device);
            if (right != size)
                break;
        }
        return position < end ? position - (end - bytes) : bytes;
    }

private:
    _vexa_usb_device *const device;
    Events &events;
    uint64_t seen;
    uint64_t position = 0;
};

} // namespace test
