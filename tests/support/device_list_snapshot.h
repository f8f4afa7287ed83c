#pragma once

#include <cstdint>

#include "support/event_log.h"
#include "vexa_usb.h"

namespace test {

// A snapshot of the device list.
struct Snapshot {
    Snapshot() { status = vexa_usb_get_device_list(&list, &count); }
    ~Snapshot() {
        if (status == VEXA_USB_STATUS_SUCCESS)
            vexa_usb_free_device_list(list);
    }
    Snapshot(const Snapshot &) = delete;
    Snapshot &operator=(const Snapshot &) = delete;

    _vexa_usb_device_list_item **list = nullptr;
    uint64_t count = 0;
    int32_t status;
};

// Opens the oldest entry of the list, with a log for its events; answers what the opening did.
inline int32_t openFirst(EventLog &log, _vexa_usb_device *&device) {
    const Snapshot snapshot;
    if (snapshot.count == 0)
        return VEXA_USB_STATUS_UNKNOWN;
    return vexa_usb_open(snapshot.list[0], EventLog::callback, &log, &device);
}

} // namespace test
