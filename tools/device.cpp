#include "device.h"

#include <deque>
#include <utility>

#include "errors.h"
#include "node_users.h"
#include "open_failure.h"

namespace tool {

namespace {

// A callback may still run after its device was closed, so handlers are never freed.
Device::EventHandler *keepHandler(Device::EventHandler handler) {
    static auto *const handlers = new std::deque<Device::EventHandler>;
    return &handlers->emplace_back(std::move(handler));
}

void deliver(_vexa_usb_device_event event, void *data) {
    const auto &handler = *static_cast<const Device::EventHandler *>(data);
    if (handler)
        handler(event);
}

} // namespace

Device::Device(const DeviceChoice &choice, EventHandler onEvent) {
    const DeviceList list;
    const ListedDevice &wanted = list.choose(choice);
    attached_ = wanted.attached;
    EventHandler *const kept = keepHandler(std::move(onEvent));
    const int32_t status = open(*wanted.item, kept);
    if (handle_ == nullptr && attached_)
        openEqual(list, wanted, kept);
    if (handle_ == nullptr)
        throw openFailure(wanted, status);
}

// Closes the device again if it is not the wanted one.
int32_t Device::open(const _vexa_usb_device_list_item &item, EventHandler *onEvent) {
    const int32_t status = vexa_usb_open(&item, deliver, onEvent, &handle_);
    id_ = item.id;
    if (status == VEXA_USB_STATUS_SUCCESS && attached_ && !hasNodeOpen("self", attached_->node))
        vexa_usb_close(std::exchange(handle_, nullptr));
    return status;
}

// For when the ids of equal devices are not in the expected order (device_list.cpp).
void Device::openEqual(const DeviceList &list, const ListedDevice &wanted, EventHandler *onEvent) {
    for (const ListedDevice &other : list.devices()) {
        const bool isEqual = other.item->vendor_id == wanted.item->vendor_id &&
                             other.item->product_id == wanted.item->product_id;
        if (isEqual && other.item != wanted.item && handle_ == nullptr)
            open(*other.item, onEvent);
    }
}

} // namespace tool
