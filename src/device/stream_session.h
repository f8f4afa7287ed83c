#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "core/transfer_set.h"
#include "device/abstract_device.h"
#include "device/data_stream.h"

namespace vexausb {

inline constexpr size_t kStreamTransferCount = 3;
inline constexpr uint64_t kStreamMaxTransferSize = 524288;

class StreamSession final : public TransferSet {
public:
    StreamSession(uint64_t bufferSize, uint64_t bufferCount, uint64_t packetSize,
                  std::shared_ptr<DeviceEventQueue> deviceEvents);

    void begin();

    // The consumer's side; the device's lock lets one thread at a time come here.
    bool lockBuffer(uint8_t *&data, uint64_t &size) { return ring.lock(data, size); }
    bool unlockBuffer() { return ring.unlock(); }

private:
    void completed(Slot &slot) override;
    void submitNext(Slot &slot);

    DataStream ring;
    const std::shared_ptr<DeviceEventQueue> events;
    std::array<DataStreamTransferInfo, kStreamTransferCount> infos; // one a slot
    bool failed = false;                                            // guarded by mutex
};

} // namespace vexausb
