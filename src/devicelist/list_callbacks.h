#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>

#include "core/mutex.h"
#include "devicelist/abstract_device_list_item.h"

namespace vexausb {

struct DeviceListEvent {
    uint32_t type;
    std::shared_ptr<AbstractDeviceListItem> item;
};

/*
 * The caller's device-list callbacks, and the delivery of the list's changes to them.
 *
 * Life: shared by the device list and by the handler of its event queue, so that a delivery in
 * progress goes on when the last fini drops the list meanwhile, and nobody waits for it.
 *
 * Threads: add, remove and clear on callers' threads; handleEvent on "usb-devicelist", which calls
 * the callbacks of the moment when it began, with no lock held.  So a callback may do anything, and
 * one that is removed during a delivery can be called once more.  A registration makes a new map,
 * so that nothing but a registration needs memory.
 */
class ListCallbacks {
public:
    using Callback =
        std::function<void(uint32_t type, const std::shared_ptr<AbstractDeviceListItem> &item)>;

    // Writes `id` before the callback can be called.
    void add(Callback callback, uint32_t &id) EXCLUDES(mutex_);
    void remove(uint32_t id) noexcept EXCLUDES(mutex_);
    void clear() noexcept EXCLUDES(mutex_);
    void handleEvent(const DeviceListEvent &event) EXCLUDES(mutex_);

private:
    struct Registration {
        Callback callback;
        std::atomic<uint64_t> lastDelivery{UINT64_MAX}; // the last for which it is called
    };
    using Callbacks = std::map<int32_t, std::shared_ptr<Registration>>;

    const std::shared_ptr<const Callbacks> none_ = std::make_shared<Callbacks>();
    Mutex mutex_;
    // Those that were removed stay in it until the next registration.
    std::shared_ptr<const Callbacks> callbacks_ GUARDED_BY(mutex_) = none_;
    uint32_t nextCallbackId_ GUARDED_BY(mutex_) = 0;
    uint64_t deliveries_ GUARDED_BY(mutex_) = 0; // that have begun
};

} // namespace vexausb
