#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "device/abstract_device.h"

namespace vexausb {

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
    void setLeft() { left.store(true); }

    const uint64_t id; // unique in the life of the process
    // Constant once the entry is made.
    uint16_t vendorId = 0;
    uint16_t productId = 0;

protected:
    AbstractDeviceListItem();

    bool hasLeft() const { return left.load(); }
    void setDevice(const std::shared_ptr<AbstractDevice> &opened);

private:
    std::atomic<bool> left{false};
    std::mutex deviceMutex; // guards device, which concurrent opens set
    std::weak_ptr<AbstractDevice> device;
};

} // namespace vexausb
