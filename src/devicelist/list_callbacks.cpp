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
 * the callbacks of that moment with no lock held (registrations make a new map, so that neither a
 * delivery nor the last fini needs memory).  So a callback may do anything, and one that is
 * removed during a delivery can be called once more.
 */
void ListCallbacks::add(Callback callback, uint32_t &id) {
    const std::lock_guard lock(mutex);
    auto changed = std::make_shared<Callbacks>(*callbacks);
    changed->emplace(static_cast<int32_t>(nextCallbackId), std::move(callback));
    callbacks = std::move(changed);
    id = nextCallbackId++;
}

void ListCallbacks::remove(uint32_t id) {
    const std::lock_guard lock(mutex);
    auto changed = std::make_shared<Callbacks>(*callbacks);
    changed->erase(static_cast<int32_t>(id));
    callbacks = std::move(changed);
}

void ListCallbacks::clear() noexcept {
    const std::lock_guard lock(mutex);
    callbacks = none;
}

void ListCallbacks::handleEvent(const DeviceListEvent &event) {
    std::shared_ptr<const Callbacks> current;
    {
        const std::lock_guard lock(mutex);
        current = callbacks;
    }
    for (const auto &[id, callback] : *current)
        callback(event.type, event.item);
}

} // namespace vexausb
