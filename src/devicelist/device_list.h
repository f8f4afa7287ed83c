#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <vector>

#include "core/event_queue.h"
#include "core/mutex.h"
#include "devicelist/abstract_device_list_item.h"
#include "devicelist/list_callbacks.h"

struct libusb_device;

namespace vexausb {

/*
 * The supported devices that are attached.  Entries come in by hot-plug arrivals and by update(),
 * and leave by hot-plug departures or with the whole list.
 *
 * Life: made by the first initialisation, dropped by the last fini; a call on another thread that
 * is still at work then keeps the list until it is done.
 *
 * Threads: update() and snapshot() on callers' threads, arrivals and departures on whichever
 * thread handles libusb's events.  "usb-devicelist", owned by its event queue, calls the caller's
 * callbacks for each change, and then releases an entry that has left, which tells the device
 * opened from it: so that happens under no lock, and neither the last fini nor the bus waits for
 * it.
 *
 * Locks: the list's mutex is taken before that of its event queue.
 */
class DeviceList {
public:
    using DeviceListEvent = vexausb::DeviceListEvent;

    DeviceList();
    ~DeviceList();
    DeviceList(const DeviceList &) = delete;
    DeviceList &operator=(const DeviceList &) = delete;

    void update() EXCLUDES(mutex_);
    void deviceArrived(libusb_device *device) EXCLUDES(mutex_);
    void deviceLeft(libusb_device *device) noexcept EXCLUDES(mutex_);
    std::vector<std::shared_ptr<AbstractDeviceListItem>> snapshot() EXCLUDES(mutex_);
    void addCallback(ListCallbacks::Callback callback, uint32_t &id);
    void removeCallback(uint32_t id);

private:
    using Items = std::list<std::shared_ptr<AbstractDeviceListItem>>;
    using Queue = EventQueue<DeviceListEvent>;

    Items::iterator findItem(uint8_t busNumber, uint8_t deviceAddress) REQUIRES(mutex_);
    void addItem(std::shared_ptr<AbstractDeviceListItem> item, const char *news) REQUIRES(mutex_);
    void removeItem(Items::iterator position) noexcept REQUIRES(mutex_);
    // `news` is for the log.
    void addIfUnknown(libusb_device *device, const char *news) REQUIRES(mutex_);

    Mutex mutex_;
    Items items_ GUARDED_BY(mutex_);              // oldest first
    Queue::Prepared removals_ GUARDED_BY(mutex_); // one for each of the items, for its departure
    const std::shared_ptr<ListCallbacks> callbacks_ = std::make_shared<ListCallbacks>();
    const std::shared_ptr<Queue> events_;
};

} // namespace vexausb
