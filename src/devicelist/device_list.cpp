#include "devicelist/device_list.h"

#include <algorithm>
#include <new>
#include <optional>
#include <utility>

#include <libusb.h>

#include "core/connection_registry.h"
#include "core/lib_usb.h"
#include "core/log.h"
#include "core/shared_memory_budget.h"
#include "core/supported_devices.h"
#include "devicelist/device_list_item_libusb.h"
#include "devicelist/libusb_device_array.h"
#include "vexa_usb.h"

namespace vexausb {

DeviceList::DeviceList()
    : events_(std::make_shared<Queue>(
          [shared = callbacks_](const DeviceListEvent &event) { shared->handleEvent(event); })) {
    events_->start("usb-devicelist");
}

DeviceList::~DeviceList() {
    callbacks_->clear();
    events_->stop();
    for (const auto &item : items_)
        item->setLeft();
}

void DeviceList::update() {
    const LibUSB::ContextUse use;
    if (!use)
        return;
    addAttached(use.context());
    connection_registry::makeRoom();
}

// The mutex is held from the enumeration to the last entry: a departure in between would find no
// entry to remove, and the device that has left would be added after it.
void DeviceList::addAttached(libusb_context *context) {
    std::optional<LibusbDeviceArray> attached; // released after the unlocking
    const MutexLock lock(mutex_);
    attached.emplace(context);
    if (attached->error() != LIBUSB_SUCCESS)
        logLine(LogLevel::Error, "the bus cannot be read: %s; 'lsusb' shows what the system sees",
                libusb_error_name(attached->error()));
    for (libusb_device *device : attached->devices()) {
        libusb_device_descriptor descriptor{};
        if (libusb_get_device_descriptor(device, &descriptor) != LIBUSB_SUCCESS)
            continue;
        if (findSupportedDevice(descriptor.idVendor, descriptor.idProduct) != nullptr)
            addIfUnknown(device, "listed");
    }
}

// If there is no memory for its entry, the device is not listed until the next update.
void DeviceList::deviceArrived(libusb_device *device) {
    try {
        {
            const MutexLock lock(mutex_);
            addIfUnknown(device, "plugged in");
        }
        connection_registry::makeRoom();
    } catch (const std::bad_alloc &) {
        logLine(LogLevel::Error, "no memory to list a device that was plugged in: "
                                 "vexa_usb_update_device_list() will do so");
    }
}

void DeviceList::deviceLeft(libusb_device *device) noexcept {
    const MutexLock lock(mutex_);
    const auto position =
        findItem(libusb_get_bus_number(device), libusb_get_device_address(device));
    if (position != items_.end())
        removeItem(position);
}

std::vector<std::shared_ptr<AbstractDeviceListItem>> DeviceList::snapshot() {
    const MutexLock lock(mutex_);
    return {items_.begin(), items_.end()};
}

void DeviceList::addCallback(ListCallbacks::Callback callback, uint32_t &id) {
    callbacks_->add(std::move(callback), id);
}

void DeviceList::removeCallback(uint32_t id) {
    callbacks_->remove(id);
}

DeviceList::Items::iterator DeviceList::findItem(uint8_t busNumber, uint8_t deviceAddress) {
    return std::find_if(items_.begin(), items_.end(),
                        [&](const auto &item) { return item->isAt(busNumber, deviceAddress); });
}

// Allocates everything first.  So an entry is both listed and reported, or neither, and removing it
// later cannot fail.
void DeviceList::addItem(std::shared_ptr<AbstractDeviceListItem> item, const char *whatHappened) {
    auto added = events_->prepare({VEXA_USB_DEVICE_LIST_EVENT_ADDED, item});
    auto removal = events_->prepare({VEXA_USB_DEVICE_LIST_EVENT_REMOVED, nullptr});
    items_.push_back(std::move(item));
    removals_.splice(removals_.end(), removal);
    shared_memory_budget::setAttachedDevices(items_.size());
    items_.back()->logChange(whatHappened);
    events_->post(added);
}

// Moves the entry into the event.  A reference that stayed here could be the last one, and the
// entry would be destroyed under the mutex.
void DeviceList::removeItem(Items::iterator position) noexcept {
    Queue::Prepared removal;
    removal.splice(removal.begin(), removals_, removals_.begin());
    removal.front().event.item = std::move(*position);
    removal.front().event.item->setLeft();
    removal.front().event.item->logChange("unplugged");
    items_.erase(position);
    shared_memory_budget::setAttachedDevices(items_.size());
    events_->post(removal);
}

void DeviceList::addIfUnknown(libusb_device *device, const char *whatHappened) {
    const auto position =
        findItem(libusb_get_bus_number(device), libusb_get_device_address(device));
    if (position == items_.end())
        addItem(std::make_shared<DeviceListItemLibUSB>(device), whatHappened);
}

} // namespace vexausb
