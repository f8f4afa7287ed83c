#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>

#include "core/mutex.h"
#include "devicelist/abstract_device_list_item.h"

namespace vexausb {

// A change of the device list, on its way to the callbacks.
struct DeviceListEvent {
    uint32_t type; // VEXA_USB_DEVICE_LIST_EVENT_...
    std::shared_ptr<AbstractDeviceListItem> item;
};

/*
 * The callers' device-list callbacks, and the delivery of the list's changes to them.
 *
 * Life: held by the device list and by the handler of its event queue.  So a delivery in progress
 * goes on when the last fini releases the list meanwhile, and the last fini need not wait for it.
 *
 * Threads: handleEvent() on "usb-devicelist", the other methods on callers' threads.  handleEvent()
 * calls the callbacks that were registered when it began, with no lock held.  So a callback may
 * call anything, and one that is removed during a delivery may still be called by that delivery.
 *
 * Memory: add() copies the map; nothing else allocates.
 */
class ListCallbacks {
public:
    using Callback =
        std::function<void(uint32_t type, const std::shared_ptr<AbstractDeviceListItem> &item)>;

    // Writes `id` before the callback can be called.
    void add(Callback callback, uint32_t &id) EXCLUDES(mutex_);
    // Does nothing for an identifier that is not registered.
    void remove(uint32_t id) noexcept EXCLUDES(mutex_);
    // Removes all, at the end of the list.
    void clear() noexcept EXCLUDES(mutex_);
    // Calls every callback with the event.
    void handleEvent(const DeviceListEvent &event) EXCLUDES(mutex_);

private:
    struct Registration {
        Callback callback;
        std::atomic<uint64_t> lastDelivery{UINT64_MAX}; // number of the last delivery that calls it
    };
    // In signed order, which decides the order of the calls after 2^31 registrations.
    using Callbacks = std::map<int32_t, std::shared_ptr<Registration>>;

    const std::shared_ptr<const Callbacks> none_ = std::make_shared<Callbacks>();
    Mutex mutex_;
    // With those that were removed since the last add().
    std::shared_ptr<const Callbacks> callbacks_ GUARDED_BY(mutex_) = none_;
    uint32_t nextCallbackId_ GUARDED_BY(mutex_) = 0;
    uint64_t deliveries_ GUARDED_BY(mutex_) = 0; // how many have begun
};

} // namespace vexausb
