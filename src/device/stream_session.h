#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "core/device_name.h"
#include "core/transfer_set.h"
#include "device/abstract_device.h"
#include "device/data_stream.h"
#include "device/stream_mode.h"

namespace vexausb {

inline constexpr size_t kStreamTransferCount = 3;
inline constexpr uint64_t kStreamMaxTransferSize = 524288;

class StreamSession final : public TransferSet {
public:
    StreamSession(uint64_t bufferSize, uint64_t bufferCount, uint64_t packetSize,
                  StreamMode streamMode, std::shared_ptr<DeviceEventQueue> deviceEvents,
                  const DeviceName &name);

    void begin();

    // The consumer's side; the device's lock lets one thread at a time come here.
    bool lockBuffer(uint8_t *&data, uint64_t &size) { return ring.lock(data, size); }
    bool unlockBuffer() { return ring.unlock(); }

private:
    void completed(Slot &slot) override;
    bool mayGoOnAfter(const Slot &slot);
    bool postFull(uint64_t buffers);
    void submitNext(Slot &slot);
    bool submitPiece(Slot &slot);
    void fail();
    void logBadTransfer(const libusb_transfer &transfer) const;
    void logFullRing() const;
    void logRefusedTransfer(int result) const;

    DataStream ring;
    const StreamMode mode;
    const std::shared_ptr<DeviceEventQueue> events;
    const DeviceName deviceName;

    // The members below are guarded by mutex.
    std::array<DataStreamTransferInfo, kStreamTransferCount> infos; // one a slot
    DeviceEventQueue::Prepared started;
    DeviceEventQueue::Prepared error; // until the run has failed
    bool failed = false;
    uint64_t bytesReceived = 0;
    uint64_t buffersReported = 0;
};

} // namespace vexausb
