#include "devicelist/device_list.h"

#include <algorithm>
#include <optional>
#include <utility>

#include <libusb.h>

#include "core/global_state.h"
#include "core/lib_usb.h"
#include "core/supported_devices.h"
#include "devicelist/device_list_item_libusb.h"
#include "devicelist/libusb_device_array.h"
#include "vexa_usb.h"

namespace vexausb {

/*
 * The supported devices that are attached.  Entries come in by hot-plug arrivals and by update(),
 * and leave by hot-plug departures or with the whole list.
 *
 * Life: made by the first initialisation, dropped by the last fini; a call on another thread that
 * is still at work then keeps the list until it is done.
 *
 * Threads: update() and snapshot() on callers' threads, arrivals and departures on whichever
 * thread handles libusb's events.  "usb-devicelist", owned by `events`, calls the caller's
 * callbacks for each change, and then releases an entry that has left, which tells the device
 * opened from it: so that happens under no lock, and neither the last fini nor the bus waits for
 * it.
 */
DeviceList::DeviceList()
    : events(std::make_shared<EventQueue<DeviceListEvent>>(
          [shared = callbacks](const DeviceListEvent &event) { shared->handleEvent(event); })) {
    events->start("usb-devicelist");
}

DeviceList::~DeviceList() {
    callbacks->clear();
    events->stop();
    for (const auto &item : items)
        item->setLeft();
}

// Enumerating under the mutex keeps a departure from falling between the enumeration and the
// adding, which would leave an entry for a device that has gone.
void DeviceList::update() {
    const UseGate::Use use = LibUSB::useContext();
    if (!use)
        return;
    std::optional<LibusbDeviceArray> attached; // released after the unlocking
    const std::lock_guard lock(callbacks->mutex);
    attached.emplace(libusbContext);
    for (libusb_device *device : attached->devices()) {
        libusb_device_descriptor descriptor{};
        if (libusb_get_device_descriptor(device, &descriptor) != LIBUSB_SUCCESS)
            continue;
        if (isSupportedDevice(descriptor.idVendor, descriptor.idProduct))
            addIfUnknown(device);
    }
}

void DeviceList::deviceArrived(libusb_device *device) {
    const std::lock_guard lock(callbacks->mutex);
    addIfUnknown(device);
}

void DeviceList::deviceLeft(libusb_device *device) {
    const std::lock_guard lock(callbacks->mutex);
    const auto position =
        findItem(libusb_get_bus_number(device), libusb_get_device_address(device));
    if (position != items.end())
        removeItem(position);
}

std::vector<std::shared_ptr<AbstractDeviceListItem>> DeviceList::snapshot() {
    const std::lock_guard lock(callbacks->mutex);
    return {items.begin(), items.end()};
}

void DeviceList::addCallback(ListCallbacks::Callback callback, uint32_t &id) {
    callbacks->add(std::move(callback), id);
}

void DeviceList::removeCallback(uint32_t id) {
    callbacks->remove(id);
}

DeviceList::Items::iterator DeviceList::findItem(uint8_t busNumber, uint8_t deviceAddress) {
    return std::find_if(items.begin(), items.end(),
                        [&](const auto &item) { return item->isAt(busNumber, deviceAddress); });
}

void DeviceList::addItem(std::shared_ptr<AbstractDeviceListItem> item) {
    items.push_back(item);
    events->post({VEXA_USB_DEVICE_LIST_EVENT_ADDED, std::move(item)});
}

// The entry moves into the event: no reference is left here that could turn out to be the last.
DeviceList::Items::iterator DeviceList::removeItem(Items::iterator position) {
    std::shared_ptr<AbstractDeviceListItem> item = std::move(*position);
    const auto following = items.erase(position);
    item->setLeft();
    events->post({VEXA_USB_DEVICE_LIST_EVENT_REMOVED, std::move(item)});
    return following;
}

void DeviceList::addIfUnknown(libusb_device *device) {
    const auto position =
        findItem(libusb_get_bus_number(device), libusb_get_device_address(device));
    if (position == items.end())
        addItem(std::make_shared<DeviceListItemLibUSB>(device));
}

} // namespace vexausb
