#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <vector>

#include "core/event_queue.h"
#include "devicelist/abstract_device_list_item.h"
#include "devicelist/list_callbacks.h"

struct libusb_device;

namespace vexausb {

class DeviceList {
public:
    using DeviceListEvent = vexausb::DeviceListEvent;

    DeviceList();
    ~DeviceList();
    DeviceList(const DeviceList &) = delete;
    DeviceList &operator=(const DeviceList &) = delete;

    void update();
    void deviceArrived(libusb_device *device);
    void deviceLeft(libusb_device *device) noexcept;
    std::vector<std::shared_ptr<AbstractDeviceListItem>> snapshot();
    void addCallback(ListCallbacks::Callback callback, uint32_t &id);
    void removeCallback(uint32_t id);

private:
    using Items = std::list<std::shared_ptr<AbstractDeviceListItem>>;

    // With the mutex of `callbacks` held.
    Items::iterator findItem(uint8_t busNumber, uint8_t deviceAddress);
    void addItem(std::shared_ptr<AbstractDeviceListItem> item);
    void removeItem(Items::iterator position) noexcept;
    void addIfUnknown(libusb_device *device);

    // Guarded by the mutex of `callbacks`.
    Items items;                                    // oldest first
    EventQueue<DeviceListEvent>::Prepared removals; // one for each of items, for its departure
    const std::shared_ptr<ListCallbacks> callbacks = std::make_shared<ListCallbacks>();
    const std::shared_ptr<EventQueue<DeviceListEvent>> events;
};

} // namespace vexausb
