#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <vector>

#include "core/event_queue.h"
#include "core/mutex.h"
#include "devicelist/abstract_device_list_item.h"
#include "devicelist/list_callbacks.h"

struct libusb_context;
struct libusb_device;

namespace vexausb {

/*
 * The supported devices that are attached.  Hot-plug arrivals and update() add entries; hot-plug
 * departures remove them.
 *
 * Life: made by the first init, released by the last fini.  A call on another thread that is still
 * using the list then keeps it until it returns.
 *
 * Threads: deviceArrived() and deviceLeft() on whichever thread handles libusb's events, the other
 * methods on callers' threads.  The event queue's thread, "usb-devicelist", calls the callers'
 * callbacks for each change.  After that it releases an entry that has left, which tells the device
 * opened from it.  So this happens under no lock, and neither the last fini nor libusb's events
 * wait for it.
 *
 * Locks: the event queue's mutex may be locked under the list's, never the other way round.
 */
class DeviceList {
public:
    // What the queue carries.  It is declared with ListCallbacks, which the list includes.
    using DeviceListEvent = vexausb::DeviceListEvent;

    // Starts "usb-devicelist".  The list is empty until the first update() or arrival.
    DeviceList();
    // No callback is called any more, except in a delivery that is in progress.
    ~DeviceList();
    DeviceList(const DeviceList &) = delete;
    DeviceList &operator=(const DeviceList &) = delete;

    // Reads the bus and adds every supported device that has no entry yet; removes none.  Throws
    // when an entry cannot be made; those that were added before stay.
    void update() EXCLUDES(mutex_);
    // libusb's hot-plug notices.  The caller has checked that the device is supported.
    void deviceArrived(libusb_device *device) EXCLUDES(mutex_);
    void deviceLeft(libusb_device *device) noexcept EXCLUDES(mutex_);
    // The entries at this moment, oldest first.
    std::vector<std::shared_ptr<AbstractDeviceListItem>> snapshot() EXCLUDES(mutex_);
    // As ListCallbacks::add and remove.
    void addCallback(ListCallbacks::Callback callback, uint32_t &id);
    void removeCallback(uint32_t id);

private:
    using Items = std::list<std::shared_ptr<AbstractDeviceListItem>>;
    using Queue = EventQueue<DeviceListEvent>;

    void addAttached(libusb_context *context) EXCLUDES(mutex_);
    Items::iterator findItem(uint8_t busNumber, uint8_t deviceAddress) REQUIRES(mutex_);
    // `whatHappened` is for the log.
    void addItem(std::shared_ptr<AbstractDeviceListItem> item, const char *whatHappened)
        REQUIRES(mutex_);
    void removeItem(Items::iterator position) noexcept REQUIRES(mutex_);
    void addIfUnknown(libusb_device *device, const char *whatHappened) REQUIRES(mutex_);

    Mutex mutex_;
    Items items_ GUARDED_BY(mutex_);              // oldest first
    Queue::Prepared removals_ GUARDED_BY(mutex_); // a prepared removed event for each item
    const std::shared_ptr<ListCallbacks> callbacks_ = std::make_shared<ListCallbacks>();
    const std::shared_ptr<Queue> events_;
};

} // namespace vexausb
