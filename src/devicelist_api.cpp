// The exported functions of the device list.
#include <cstddef>
#include <cstdint>
#include <memory>

#include "core/call_checks.h"
#include "core/thread.h"
#include "devicelist/device_list.h"
#include "devicelist/list_record.h"
#include "vexa_usb.h"

using namespace vexausb;

namespace {

// Gives the callback a record that is valid during the call only.
void callWithRecord(vexa_usb_device_list_event_callback callback, uint32_t type,
                    const std::shared_ptr<AbstractDeviceListItem> &item, void *data) {
    if (item == nullptr) {
        callback(type, nullptr, data);
        return;
    }
    _vexa_usb_device_list_item record{};
    fillRecord(record, item);
    callback(type, &record, data);
    clearRecord(record);
}

} // namespace

int32_t vexa_usb_get_device_list(_vexa_usb_device_list_item ***list, uint64_t *count) {
    std::shared_ptr<DeviceList> devices;
    const CallChecks checks =
        CallChecks().initialized().parameters(list != nullptr).deviceList(devices);
    if (!checks.passed())
        return checks.status();
    const auto items = devices->snapshot();
    // All pointers are null at first, so that the array can be freed even if there is no memory for
    // one of the records.
    *list = new _vexa_usb_device_list_item *[items.size() + 1]();
    for (size_t i = 0; i < items.size(); ++i) {
        (*list)[i] = new _vexa_usb_device_list_item;
        fillRecord(*(*list)[i], items[i]);
    }
    if (count != nullptr)
        *count = items.size();
    return VEXA_USB_STATUS_SUCCESS;
}

int32_t vexa_usb_free_device_list(_vexa_usb_device_list_item **list) {
    const CallChecks checks = CallChecks().initialized().parameters(list != nullptr);
    if (!checks.passed())
        return checks.status();
    for (_vexa_usb_device_list_item **record = list; *record != nullptr; ++record) {
        clearRecord(**record);
        delete *record;
    }
    delete[] list;
    return VEXA_USB_STATUS_SUCCESS;
}

int32_t vexa_usb_register_device_list_event_callback(vexa_usb_device_list_event_callback callback,
                                                     void *data, uint32_t *id) {
    std::shared_ptr<DeviceList> devices;
    const CallChecks checks = CallChecks()
                                  .initialized()
                                  .parameters(callback != nullptr && id != nullptr)
                                  .deviceList(devices);
    if (checks.passed())
        devices->addCallback(
            [callback, data](uint32_t type, const auto &item) {
                callWithRecord(callback, type, item, data);
            },
            *id);
    return checks.status();
}

int32_t vexa_usb_deregister_device_list_event_callback(uint32_t id) {
    std::shared_ptr<DeviceList> devices;
    const CallChecks checks = CallChecks().initialized().deviceList(devices);
    if (checks.passed())
        devices->removeCallback(id);
    return checks.status();
}

int32_t vexa_usb_update_device_list(void) {
    std::shared_ptr<DeviceList> devices;
    const CallChecks checks = CallChecks().initialized().deviceList(devices).started();
    const CancellationLater uncancelled;
    if (checks.passed())
        devices->update();
    return checks.status();
}
