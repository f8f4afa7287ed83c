#pragma once

#include <cstdint>
#include <memory>

#include <libusb.h>

#include "core/device_name.h"
#include "devicelist/abstract_device_list_item.h"

namespace vexausb {

class DeviceListItemLibUSB final : public AbstractDeviceListItem {
public:
    explicit DeviceListItemLibUSB(libusb_device *attached);

    int32_t open(std::shared_ptr<AbstractDevice> &opened, DeviceEventHandler handler) override;

    bool isAt(uint8_t bus, uint8_t address) const override {
        return bus == busNumber && address == deviceAddress;
    }

    void logChange(const char *what) const override;

private:
    DeviceName name() const { return {vendorId, productId, busNumber, deviceAddress}; }
    void logFailedOpen(int result) const;
    int32_t openDevice(libusb_device *found, std::shared_ptr<AbstractDevice> &opened,
                       DeviceEventHandler handler);

    const uint8_t busNumber;
    const uint8_t deviceAddress;
};

} // namespace vexausb
