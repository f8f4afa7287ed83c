#include "devicelist/device_list.h"

#include <algorithm>
#include <new>
#include <optional>
#include <utility>

#include <libusb.h>

#include "core/global_state.h"
#include "core/lib_usb.h"
#include "core/log.h"
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
    if (attached->error() != LIBUSB_SUCCESS)
        logLine(LogLevel::Error, "the bus cannot be read: %s",
                libusb_error_name(attached->error()));
    for (libusb_device *device : attached->devices()) {
        libusb_device_descriptor descriptor{};
        if (libusb_get_device_descriptor(device, &descriptor) != LIBUSB_SUCCESS)
            continue;
        if (findSupportedDevice(descriptor.idVendor, descriptor.idProduct) != nullptr)
            addIfUnknown(device);
    }
}

// Without memory for an entry the device is not listed before the next update.
void DeviceList::deviceArrived(libusb_device *device) {
    const std::lock_guard lock(callbacks->mutex);
    try {
        addIfUnknown(device);
    } catch (const std::bad_alloc &) {
        logLine(LogLevel::Error, "no memory to list a device that was plugged in");
    }
}

void DeviceList::deviceLeft(libusb_device *device) noexcept {
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

// All the memory first: an entry is listed and reported, or neither, and one that is listed can be
// taken off again in any case.
void DeviceList::addItem(std::shared_ptr<AbstractDeviceListItem> item) {
    auto added = events->prepare({VEXA_USB_DEVICE_LIST_EVENT_ADDED, item});
    auto removal = events->prepare({VEXA_USB_DEVICE_LIST_EVENT_REMOVED, nullptr});
    items.push_back(std::move(item));
    removals.splice(removals.end(), removal);
    items.back()->logChange("plugged in");
    events->post(added);
}

// The entry moves into the event: no reference is left here that could turn out to be the last.
void DeviceList::removeItem(Items::iterator position) noexcept {
    EventQueue<DeviceListEvent>::Prepared removal;
    removal.splice(removal.begin(), removals, removals.begin());
    removal.front().item = std::move(*position);
    removal.front().item->setLeft();
    removal.front().item->logChange("unplugged");
    items.erase(position);
    events->post(removal);
}

void DeviceList::addIfUnknown(libusb_device *device) {
    const auto position =
        findItem(libusb_get_bus_number(device), libusb_get_device_address(device));
    if (position == items.end())
        addItem(std::make_shared<DeviceListItemLibUSB>(device));
}

} // namespace vexausb
