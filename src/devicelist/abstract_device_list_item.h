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
 * Life: shared by the list and by the events that speak of it; callers' records hold it weakly.
 * Its destruction is how an opened device learns that it has gone, and happens where the last of
 * those references is released: on "usb-devicelist" after the removed event was delivered, with
 * the whole list, or on a caller's thread that was opening it or reading the list.  Never under the
 * list's mutex, nor on a thread that handles libusb's events.
 */
class AbstractDeviceListItem {
public:
    virtual ~AbstractDeviceListItem();
    AbstractDeviceListItem(const AbstractDeviceListItem &) = delete;
    AbstractDeviceListItem &operator=(const AbstractDeviceListItem &) = delete;

    // Opens the device; writes `opened` on success only.
    virtual int32_t open(std::shared_ptr<AbstractDevice> &opened, DeviceEventHandler handler) = 0;

    // Whether its device is attached there.
    virtual bool isAt(uint8_t bus, uint8_t address) const = 0;

    // Tells the log what has become of the device.
    virtual void logChange(const char *what) const = 0;

    // The entry is no longer listed, and cannot be opened from now on: another device may be where
    // its own was.
    void setLeft() { left_.store(true); }

    const uint64_t id; // unique in the life of the process
    // Constant once the entry is made.
    uint16_t vendorId = 0;
    uint16_t productId = 0;

protected:
    AbstractDeviceListItem();

    bool hasLeft() const { return left_.load(); }
    void setDevice(const std::shared_ptr<AbstractDevice> &opened) EXCLUDES(deviceMutex_);

private:
    std::shared_ptr<AbstractDevice> openedDevice() EXCLUDES(deviceMutex_);

    std::atomic<bool> left_{false};
    Mutex deviceMutex_; // against concurrent opens; nothing is locked inside it
    std::weak_ptr<AbstractDevice> device_ GUARDED_BY(deviceMutex_);
};

} // namespace vexausb
