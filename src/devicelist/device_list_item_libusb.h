#pragma once

#include <cstdint>
#include <memory>

#include <libusb.h>

#include "core/device_name.h"
#include "devicelist/abstract_device_list_item.h"

namespace vexausb {

/*
 * An entry for a device that libusb sees.  It finds the device by bus number and device address and
 * holds no libusb object, so it may outlive the libusb context.
 */
class DeviceListItemLibUSB final : public AbstractDeviceListItem {
public:
    // Throws when the device's descriptor cannot be read.
    explicit DeviceListItemLibUSB(libusb_device *attached);

    int32_t open(std::shared_ptr<AbstractDevice> &opened, DeviceEventHandler handler) override;

    bool isAt(uint8_t bus, uint8_t address) const override {
        return bus == busNumber_ && address == deviceAddress_;
    }

    void logChange(const char *whatHappened) const override;

private:
    DeviceName name() const { return {vendorId(), productId(), busNumber_, deviceAddress_}; }
    void logFailedOpen(int result) const;
    int32_t openDevice(libusb_device *found, std::shared_ptr<AbstractDevice> &opened,
                       DeviceEventHandler handler);

    const uint8_t busNumber_;
    const uint8_t deviceAddress_;
};

} // namespace vexausb
