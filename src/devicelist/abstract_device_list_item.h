#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "core/mutex.h"
#include "device/abstract_device.h"

namespace vexausb {

/*
 * One entry of the device list.
 *
 * Life: the list and the events about the entry hold it; callers' records have weak references.
 * Its destructor tells the device that was opened from it that it has been removed.  That happens
 * where the last reference is released: on "usb-devicelist" after the delivery of the removed
 * event, on the thread that destroys the list, or on a caller's thread that was just opening the
 * entry or copying the list.  It never happens under the list's mutex, nor on a thread that handles
 * libusb's events.
 */
class AbstractDeviceListItem {
public:
    virtual ~AbstractDeviceListItem();
    AbstractDeviceListItem(const AbstractDeviceListItem &) = delete;
    AbstractDeviceListItem &operator=(const AbstractDeviceListItem &) = delete;

    // Opens the device, on a caller's thread.  Returns a status; writes `opened` on success only.
    virtual int32_t open(std::shared_ptr<AbstractDevice> &opened, DeviceEventHandler handler) = 0;

    // Whether the device is the one at that place on the bus.
    virtual bool isAt(uint8_t bus, uint8_t address) const = 0;

    // Writes to the log what has happened to the device, such as "unplugged".
    virtual void logChange(const char *whatHappened) const = 0;

    // Called when the entry leaves the list.  From then on it cannot be opened: at its place on the
    // bus there may be another device already.
    void setLeft() { left_.store(true); }

    // Unique in the life of the process.
    uint64_t id() const { return id_; }
    uint16_t vendorId() const { return vendorId_; }
    uint16_t productId() const { return productId_; }

protected:
    AbstractDeviceListItem();

    // Only while the entry is constructed.
    void setIdentifiers(uint16_t vendor, uint16_t product);
    bool hasLeft() const { return left_.load(); }
    // Sets which device the destructor tells of the removal.
    void setDevice(const std::shared_ptr<AbstractDevice> &opened) EXCLUDES(deviceMutex_);

private:
    std::shared_ptr<AbstractDevice> openedDevice() EXCLUDES(deviceMutex_);

    const uint64_t id_;
    uint16_t vendorId_ = 0;
    uint16_t productId_ = 0;
    std::atomic<bool> left_{false};
    Mutex deviceMutex_; // two threads may open the entry at once; no other lock is taken under it
    std::weak_ptr<AbstractDevice> device_ GUARDED_BY(deviceMutex_);
};

} // namespace vexausb
