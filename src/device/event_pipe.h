#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "core/device_name.h"
#include "core/transfer_set.h"
#include "device/abstract_device.h"

namespace vexausb {

class EventPipe final : public TransferSet {
public:
    EventPipe(std::shared_ptr<DeviceEventQueue> deviceEvents, const DeviceName &name);

    // Before anybody else knows the pipe, and so without a lock.
    void setPacketSize(int packetSize);
    bool arm();

private:
    void completed(Slot &slot) override;
    bool submitNext(Slot &slot);
    bool postBytes(const Slot &slot);
    void logEnd(const Slot &slot, const char *reason) const;

    const std::shared_ptr<DeviceEventQueue> events;
    const DeviceName deviceName;
    std::vector<uint8_t> eventBuffer; // one packet; written by the transfer once armed
};

} // namespace vexausb
