#include "devicelist/abstract_device_list_item.h"

#include <atomic>

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
namespace {

std::atomic<uint64_t> nextItemId{0};

} // namespace

AbstractDeviceListItem::AbstractDeviceListItem() : id(nextItemId.fetch_add(1) + 1) {}

AbstractDeviceListItem::~AbstractDeviceListItem() {
    if (const std::shared_ptr<AbstractDevice> opened = device.lock())
        opened->setRemoved();
}

void AbstractDeviceListItem::setDevice(const std::shared_ptr<AbstractDevice> &opened) {
    const std::lock_guard lock(deviceMutex);
    device = opened;
}

} // namespace vexausb
