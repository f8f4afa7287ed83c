#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <vector>

#include "core/event_queue.h"
#include "devicelist/abstract_device_list_item.h"

struct libusb_device;

namespace vexausb {

class DeviceList {
public:
    struct DeviceListEvent {
        uint32_t type;
        std::shared_ptr<AbstractDeviceListItem> item;
    };

    DeviceList();
    ~DeviceList();
    DeviceList(const DeviceList &) = delete;
    DeviceList &operator=(const DeviceList &) = delete;

    void update();
    void deviceArrived(libusb_device *device);
    void deviceLeft(libusb_device *device);
    std::vector<std::shared_ptr<AbstractDeviceListItem>> snapshot();

private:
    using Items = std::list<std::shared_ptr<AbstractDeviceListItem>>;

    // With `mutex` held.
    Items::iterator findItem(uint8_t busNumber, uint8_t deviceAddress);
    void addItem(std::shared_ptr<AbstractDeviceListItem> item);
    Items::iterator removeItem(Items::iterator position);
    void addIfUnknown(libusb_device *device);

    Items items; // guarded by mutex, oldest first
    const std::shared_ptr<EventQueue<DeviceListEvent>> events;
    std::mutex mutex; // taken before the mutex of `events`, never the other way round
};

} // namespace vexausb
