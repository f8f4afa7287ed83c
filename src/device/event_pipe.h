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

    // Before anybody else knows the pipe, and so without a lock.
    void setPacketSize(int packetSize);
    bool arm();

private:
    void completed(Slot &slot) override;

    const std::shared_ptr<DeviceEventQueue> events;
    std::vector<uint8_t> eventBuffer; // one packet; written by the transfer once armed
};

} // namespace vexausb
