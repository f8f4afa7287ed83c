#include "device/stream_session.h"

#include <utility>

namespace vexausb {

/*
 * One run of a data stream, from start to stop: the ring and the transfers that fill it.
 *
 * Life: held by its device and by every transfer in flight, so the ring outlives the last write
 * to it.  A run that failed stays failed; the next start makes another session.
 *
 * Threads: begin() on the caller's thread, completed() on the thread that handles libusb's events,
 * both under `mutex`.  "Look whether to go on, take the next piece, submit it" is thereby one step,
 * so that pieces reach libusb in ring order and the started event precedes every buffer-full one.
 * Events are posted under `mutex`; the queue's own lock is taken inside it.
 */
StreamSession::StreamSession(uint64_t bufferSize, uint64_t bufferCount, uint64_t packetSize,
                             std::shared_ptr<DeviceEventQueue> deviceEvents)
    : ring(bufferSize, bufferCount, kStreamMaxTransferSize, packetSize),
      events(std::move(deviceEvents)) {}

void StreamSession::begin() {
    const std::lock_guard lock(mutex);
    for (Slot &slot : slots) {
        if (failed || stopRequested)
            release(slot);
        else
            submitNext(slot);
    }
    events->post(VEXA_USB_DEVICE_EVENT_DATA_STREAM_STARTED);
}

// A transfer that did not complete has no data: its piece is dropped, and the stream goes on with
// the transfers that are left.
void StreamSession::completed(Slot &slot) {
    if (slot.transfer->status != LIBUSB_TRANSFER_COMPLETED) {
        release(slot);
        return;
    }
    for (uint64_t full = ring.transferCompleted(infos[slot.index]); full > 0; --full)
        events->post(VEXA_USB_DEVICE_EVENT_DATA_STREAM_BUFFER_FULL);
    if (failed || stopRequested)
        release(slot);
    else
        submitNext(slot);
}

// No free buffer, or a refused submission, ends the run: what is in flight is cancelled, so that
// nothing gets written behind the gap.
void StreamSession::submitNext(Slot &slot) {
    DataStreamTransferInfo &info = infos[slot.index];
    if (ring.nextTransfer(info) &&
        submit(slot, info.destination, static_cast<int>(info.transferLength)))
        return;
    release(slot);
    failed = true;
    cancelAll();
    events->post(VEXA_USB_DEVICE_EVENT_DATA_STREAM_ERROR);
}

} // namespace vexausb
