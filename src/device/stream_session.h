#pragma once

#include <cstdint>
#include <memory>

#include "core/device_name.h"
#include "core/transfer_set.h"
#include "device/abstract_device.h"
#include "device/data_stream.h"
#include "device/stream_mode.h"

namespace vexausb {

class UsbConnection;

/*
 * One run of a data stream, from start to stop: the ring and the transfers that fill it.
 *
 * Life: held by its device, by the connection that is to end it, and by every transfer in flight,
 * so the ring outlives the last write to it.  A run that failed stays failed; the next start makes
 * another session.
 *
 * Threads: begin() on the caller's thread, completed() on the thread that handles libusb's events.
 * "Look whether to go on, take the next piece, submit it" is one step under the mutex, so that
 * pieces reach libusb in ring order and the started event precedes every buffer-full one.  Events
 * are posted under it; the queue's own lock is taken inside it.  The consumer's side is not under
 * the mutex: the device's stream mutex lets one thread at a time come there.
 *
 * Modes: by default, a transfer that brings less than its length leaves a gap that nobody is told
 * of, and one behind the gap still counts.  A strict run ends at its first gap: no buffer is
 * reported from there on.
 */
class StreamSession final : public TransferSet {
public:
    struct Settings {
        uint8_t endpoint;
        uint64_t bufferSize;
        uint64_t bufferCount;
        StreamMode mode;
    };

    // A run that is ready to begin and that the connection ends when it closes.  The caller holds a
    // Use of the connection.  Throws EndpointError where the device has no such endpoint or its
    // packets have no size, and other exceptions when there is no memory.
    static std::shared_ptr<StreamSession> make(UsbConnection &connection, const Settings &settings,
                                               std::shared_ptr<DeviceEventQueue> events,
                                               const DeviceName &name);

    // Only make() can have a Key.
    class Key {
        friend class StreamSession;
        Key() = default;
    };
    StreamSession(Key, const UsbConnection &connection, const Settings &settings,
                  uint64_t packetSize, std::shared_ptr<DeviceEventQueue> events,
                  const DeviceName &name);

    // Once.  Submits the first pieces, then posts event 257.  It reports nothing: where a piece has
    // no free buffer or is refused, the run ends with event 5, which then comes before 257.
    void begin() EXCLUDES(mutex_);

    // The consumer's side, for one thread at a time.
    bool lockBuffer(uint8_t *&data, uint64_t &size) { return ring_.lock(data, size); }
    bool unlockBuffer() { return ring_.unlock(); }

private:
    // A transfer, and what it does to the ring.
    struct Piece final : Slot {
        DataStreamTransferInfo info;
    };

    static Slots makeSlots();
    void completed(Slot &slot) override REQUIRES(mutex_);
    void doReleaseUnused() override REQUIRES(mutex_) { ring_.releaseUnused(); }
    void doReleaseMemory(CallerMemory callers) override REQUIRES(mutex_) {
        ring_.releaseShared(callers);
    }
    // Reports what the transfer brought; whether it is to be submitted again.
    bool acceptsMoreAfter(const Piece &piece) REQUIRES(mutex_);
    bool postFull(uint64_t buffers) REQUIRES(mutex_);
    void submitNextTransfer(Piece &piece) REQUIRES(mutex_);
    bool submitPiece(Piece &piece) REQUIRES(mutex_);
    void fail() REQUIRES(mutex_);
    void logBadTransfer(const libusb_transfer &transfer) const REQUIRES(mutex_);
    void logSilentEnd() const REQUIRES(mutex_);
    void logFullRing() const REQUIRES(mutex_);
    void logRefusedTransfer(int result) const REQUIRES(mutex_);

    DataStream ring_; // the producer's side under the mutex
    const StreamMode mode_;
    const std::shared_ptr<DeviceEventQueue> events_;
    const DeviceName deviceName_;
    DeviceEventQueue::Prepared started_ GUARDED_BY(mutex_);
    DeviceEventQueue::Prepared error_ GUARDED_BY(mutex_); // until the run has failed
    bool failed_ GUARDED_BY(mutex_) = false;
    uint64_t bytesReceived_ GUARDED_BY(mutex_) = 0;
    uint64_t buffersReported_ GUARDED_BY(mutex_) = 0;
};

} // namespace vexausb
