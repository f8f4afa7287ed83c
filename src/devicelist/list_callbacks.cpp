#include "devicelist/list_callbacks.h"

#include <utility>

namespace vexausb {

/*
 * The caller's device-list callbacks, and the delivery of the list's changes to them.
 *
 * Life: shared by the device list and by the handler of its event queue, so that a delivery in
 * progress goes on when the last fini drops the list meanwhile, and nobody waits for it.
 *
 * Threads: add, remove and clear on callers' threads; handleEvent on "usb-devicelist", which calls
 * a copy of the callbacks with no lock held.  So a callback may do anything, and one that is
 * removed during a delivery can be called once more.
 */
void ListCallbacks::add(Callback callback, uint32_t &id) {
    const std::lock_guard lock(mutex);
    id = nextCallbackId++;
    callbacks.emplace(static_cast<int32_t>(id), std::move(callback));
}

void ListCallbacks::remove(uint32_t id) {
    const std::lock_guard lock(mutex);
    callbacks.erase(static_cast<int32_t>(id));
}

void ListCallbacks::clear() {
    const std::lock_guard lock(mutex);
    callbacks.clear();
}

void ListCallbacks::handleEvent(const DeviceListEvent &event) {
    std::map<int32_t, Callback> current;
    {
        const std::lock_guard lock(mutex);
        current = callbacks;
    }
    for (const auto &[id, callback] : current)
        callback(event.type, event.item);
}

} // namespace vexausb
