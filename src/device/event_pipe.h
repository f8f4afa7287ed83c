#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "core/transfer_set.h"
#include "device/abstract_device.h"

namespace vexausb {

class EventPipe final : public TransferSet {
public:
    explicit EventPipe(std::shared_ptr<DeviceEventQueue> deviceEvents);

    // Once, before arm().
    void setPacketSize(int packetSize);
    // A pipe that could not be armed is to be released: its transfer still refers to the device,
    // which it must not do once the libusb context has ended.
    bool arm();

private:
    void completed(Slot &slot) override;

    const std::shared_ptr<DeviceEventQueue> events;
    std::vector<uint8_t> eventBuffer; // one packet; written by the transfer once armed
};

} // namespace vexausb
