// The exported functions of opened devices.
#include <cstdint>
#include <memory>
#include <new>

#include "core/log.h"
#include "core/thread.h"
#include "device/abstract_device.h"
#include "device/device_call.h"
#include "devicelist/list_record.h"
#include "vexa_usb.h"

using namespace vexausb;

namespace {

DeviceCall readCall(const _vexa_usb_device *device, uint8_t endpoint, const uint8_t *data,
                    uint64_t length) {
    return DeviceCall(device)
        .initialized()
        .parameters(data != nullptr && length != 0)
        .inEndpoint(endpoint)
        .notRemoved();
}

DeviceCall writeCall(const _vexa_usb_device *device, uint8_t endpoint, const uint8_t *data,
                     uint64_t length) {
    return DeviceCall(device)
        .initialized()
        .parameters(data != nullptr && length != 0)
        .outEndpoint(endpoint)
        .notRemoved();
}

DeviceCall activeStreamCall(const _vexa_usb_device *device, bool validParameters = true) {
    return DeviceCall(device)
        .initialized()
        .parameters(validParameters)
        .dataStreamSupported()
        .dataStreamActive()
        .notRemoved();
}

int32_t streamLimitCall(const _vexa_usb_device *device, uint64_t *value,
                        uint64_t (AbstractDevice::*limit)() const) {
    return DeviceCall(device)
        .initialized()
        .parameters(value != nullptr)
        .dataStreamSupported()
        .notRemoved()
        .then([&](const AbstractDevice &opened) {
            *value = (opened.*limit)();
            return VEXA_USB_STATUS_SUCCESS;
        });
}

} // namespace

int32_t vexa_usb_open(const _vexa_usb_device_list_item *entry,
                      vexa_usb_device_event_callback callback, void *data,
                      _vexa_usb_device **device) {
    std::shared_ptr<DeviceList> list;
    const CallChecks checks =
        CallChecks()
            .initialized()
            .parameters(entry != nullptr && callback != nullptr && device != nullptr)
            .deviceList(list)
            .started();
    if (!checks.passed())
        return checks.status();
    const CancellationLater uncancelled;
    const std::shared_ptr<AbstractDeviceListItem> item = recordItem(*entry).lock();
    if (item == nullptr) {
        logLine(LogLevel::Error, "%04x:%04x: cannot be opened: it has left; get a new list",
                static_cast<unsigned>(entry->vendor_id), static_cast<unsigned>(entry->product_id));
        return VEXA_USB_STATUS_UNKNOWN;
    }
    try {
        auto handle = std::make_unique<_vexa_usb_device>();
        const int32_t status =
            item->open(handle->device, [callback, data](const _vexa_usb_device_event &event) {
                callback(event, data);
            });
        if (status == VEXA_USB_STATUS_SUCCESS)
            *device = handle.release();
        return status;
    } catch (const std::bad_alloc &) {
        logLine(LogLevel::Error, "no memory to open a device");
        return VEXA_USB_STATUS_UNKNOWN;
    }
}

int32_t vexa_usb_close(_vexa_usb_device *device) {
    const DeviceCall call = DeviceCall(device).initialized().parameters();
    if (call.passed()) {
        const CancellationLater uncancelled;
        device->device->close();
        delete device;
    }
    return call.status();
}

int32_t vexa_usb_get_kernel_driver_version(_vexa_usb_device *device, _vexa_usb_version *version) {
    return DeviceCall(device)
        .initialized()
        .parameters(version != nullptr)
        .notRemoved()
        .then([&](AbstractDevice &opened) { return opened.getKernelDriverVersion(*version); });
}

int32_t vexa_usb_get_device_descriptor(_vexa_usb_device *device,
                                       _vexa_usb_device_descriptor *descriptor, uint64_t size) {
    return DeviceCall(device)
        .initialized()
        .parameters(descriptor != nullptr && size >= sizeof(*descriptor))
        .notRemoved()
        .then([&](AbstractDevice &opened) { return opened.getDeviceDescriptor(*descriptor); });
}

// Unlike the other functions this one checks neither initCount nor the handle: callers rely on an
// answer without init, and a null handle is their error.
int32_t vexa_usb_get_max_packet_size(_vexa_usb_device *device, uint8_t endpoint, uint16_t *size) {
    if (size == nullptr)
        return VEXA_USB_STATUS_INVALID_PARAMETERS;
    return DeviceCall(device).notRemoved().then(
        [&](AbstractDevice &opened) { return opened.getMaxPacketSize(endpoint, *size); });
}

int32_t vexa_usb_control_transfer(_vexa_usb_device *device, int32_t direction, int32_t type,
                                  int32_t recipient, uint8_t request, uint16_t value,
                                  uint16_t index, uint8_t *data, uint64_t length) {
    return DeviceCall(device).initialized().parameters().notRemoved().then(
        [&](AbstractDevice &opened) {
            return opened.controlTransfer(direction, type, recipient, request, value, index, data,
                                          length, nullptr);
        });
}

int32_t vexa_usb_interrupt_read(_vexa_usb_device *device, uint8_t endpoint, uint8_t *data,
                                uint64_t length) {
    return readCall(device, endpoint, data, length).then([&](AbstractDevice &opened) {
        return opened.interruptRead(endpoint, data, length, nullptr);
    });
}

int32_t vexa_usb_interrupt_write(_vexa_usb_device *device, uint8_t endpoint, const uint8_t *data,
                                 uint64_t length) {
    return writeCall(device, endpoint, data, length).then([&](AbstractDevice &opened) {
        return opened.interruptWrite(endpoint, data, length, nullptr);
    });
}

int32_t vexa_usb_bulk_read(_vexa_usb_device *device, uint8_t endpoint, uint8_t *data,
                           uint64_t length) {
    return readCall(device, endpoint, data, length).then([&](AbstractDevice &opened) {
        return opened.bulkRead(endpoint, data, length, nullptr);
    });
}

int32_t vexa_usb_bulk_write(_vexa_usb_device *device, uint8_t endpoint, const uint8_t *data,
                            uint64_t length) {
    return writeCall(device, endpoint, data, length).then([&](AbstractDevice &opened) {
        return opened.bulkWrite(endpoint, data, length, nullptr);
    });
}

int32_t vexa_usb_event_pipe_enable(_vexa_usb_device *device, uint8_t endpoint) {
    return DeviceCall(device)
        .initialized()
        .parameters()
        .inEndpoint(endpoint)
        .eventPipeSupported()
        .eventPipeIdle()
        .notRemoved()
        .then([&](AbstractDevice &opened) { return opened.eventPipeEnable(endpoint); });
}

int32_t vexa_usb_event_pipe_disable(_vexa_usb_device *device) {
    return DeviceCall(device)
        .initialized()
        .parameters()
        .eventPipeSupported()
        .eventPipeActive()
        .notRemoved()
        .then([](AbstractDevice &opened) { return opened.eventPipeDisable(); });
}

int32_t vexa_usb_data_stream_start(_vexa_usb_device *device, uint8_t endpoint, uint64_t buffer_size,
                                   uint64_t buffer_count) {
    return DeviceCall(device)
        .initialized()
        .parameters(buffer_size != 0 && buffer_count != 0)
        .inEndpoint(endpoint)
        .dataStreamSupported()
        .dataStreamIdle()
        .notRemoved()
        .then([&](AbstractDevice &opened) {
            return opened.dataStreamStart(endpoint, buffer_size, buffer_count);
        });
}

int32_t vexa_usb_data_stream_stop(_vexa_usb_device *device) {
    return activeStreamCall(device).then(
        [](AbstractDevice &opened) { return opened.dataStreamStop(); });
}

int32_t vexa_usb_data_stream_buffer_lock(_vexa_usb_device *device, uint8_t **data, uint64_t *size) {
    return activeStreamCall(device, data != nullptr && size != nullptr)
        .then([&](AbstractDevice &opened) { return opened.dataStreamBufferLock(*data, *size); });
}

int32_t vexa_usb_data_stream_buffer_unlock(_vexa_usb_device *device) {
    return activeStreamCall(device).then(
        [](AbstractDevice &opened) { return opened.dataStreamBufferUnlock(); });
}

int32_t vexa_usb_data_stream_memory_size_max(_vexa_usb_device *device, uint64_t *size) {
    return streamLimitCall(device, size, &AbstractDevice::memorySizeMax);
}

int32_t vexa_usb_data_stream_rate_max(_vexa_usb_device *device, uint64_t *rate) {
    return streamLimitCall(device, rate, &AbstractDevice::rateMax);
}
