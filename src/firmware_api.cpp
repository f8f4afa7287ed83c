// The exported functions that load firmware.
#include <cstdint>
#include <exception>
#include <span>
#include <utility>

#include "device/device_call.h"
#include "firmware/dfu.h"
#include "firmware/fx2.h"
#include "firmware/fx3.h"
#include "firmware/imx7.h"
#include "vexa_usb.h"

using namespace vexausb;

namespace {

DeviceCall imageCall(const _vexa_usb_device *device, const void *data, uint64_t size) {
    return DeviceCall(device).initialized().parameters(data != nullptr && size != 0);
}

int32_t imx7Call(_vexa_usb_device *device, const uint8_t *data, uint64_t size,
                 bool (*load)(AbstractDevice &, std::span<const uint8_t>)) {
    return imageCall(device, data, size).notRemoved().then([&](AbstractDevice &opened) {
        try {
            return load(opened, {data, size}) ? VEXA_USB_STATUS_SUCCESS : VEXA_USB_STATUS_UNKNOWN;
        } catch (const std::exception &) {
            return VEXA_USB_STATUS_UNKNOWN;
        }
    });
}

} // namespace

int32_t vexa_usb_fx2_reset(_vexa_usb_device *device) {
    return DeviceCall(device).initialized().parameters().notRemoved().then(fx2Reset);
}

int32_t vexa_usb_fx2_load_firmware(_vexa_usb_device *device, const uint8_t *image, uint64_t size) {
    return DeviceCall(device).initialized().parameters().notRemoved().then(
        [&](AbstractDevice &opened) { return fx2LoadFirmware(opened, image, size); });
}

int32_t vexa_usb_fx2_renumerate(_vexa_usb_device *device) {
    return DeviceCall(device).initialized().parameters().notRemoved().then(fx2Renumerate);
}

int32_t vexa_usb_fx3_load_firmware(_vexa_usb_device *device, const uint32_t *image,
                                   uint64_t length) {
    return imageCall(device, image, length)
        .parameters(reinterpret_cast<uintptr_t>(image) % alignof(uint32_t) == 0)
        .notRemoved()
        .then([&](AbstractDevice &opened) { return fx3LoadFirmware(opened, image, length); });
}

int32_t vexa_usb_dfu_download(_vexa_usb_device *device, const uint8_t *data, uint64_t size,
                              vexa_usb_dfu_progress_callback callback, void *callback_data) {
    return imageCall(device, data, size).notRemoved().then([&](AbstractDevice &opened) {
        DfuProgress progress;
        if (callback != nullptr)
            progress = [=](double done) { callback(callback_data, done); };
        return dfuDownload(opened, data, size, std::move(progress));
    });
}

// There is no protocol for this processor yet: nothing is asked of the device, not even whether it
// was removed.
int32_t vexa_usb_lpc4370_load_firmware(_vexa_usb_device *device, const uint8_t *data,
                                       uint64_t size) {
    const DeviceCall call = imageCall(device, data, size);
    return call.passed() ? VEXA_USB_STATUS_NOT_SUPPORTED : call.status();
}

int32_t vexa_usb_imx7_load_firmware_spl(_vexa_usb_device *device, const uint8_t *data,
                                        uint64_t size) {
    return imx7Call(device, data, size, imx7LoadSpl);
}

int32_t vexa_usb_imx7_load_firmware_uboot(_vexa_usb_device *device, const uint8_t *data,
                                          uint64_t size) {
    return imx7Call(device, data, size, imx7LoadUboot);
}
