#include "device/stream_session.h"

#include <cinttypes>
#include <cstdio>
#include <utility>

#include "core/log.h"
#include "core/transfer_status.h"
#include "core/usbfs_limit.h"

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
 *
 * Modes: by default, a transfer that brings less than it was to leaves a gap that nobody is told
 * of, and one behind the gap still counts.  A strict run ends at its first gap: no buffer is
 * reported from there on.
 */
StreamSession::StreamSession(uint64_t bufferSize, uint64_t bufferCount, uint64_t packetSize,
                             StreamMode streamMode, std::shared_ptr<DeviceEventQueue> deviceEvents,
                             const DeviceName &name)
    : ring(bufferSize, bufferCount, kStreamMaxTransferSize, packetSize),
      mode(streamMode),
      events(std::move(deviceEvents)),
      deviceName(name),
      started(DeviceEventQueue::prepare(VEXA_USB_DEVICE_EVENT_DATA_STREAM_STARTED)),
      error(DeviceEventQueue::prepare(VEXA_USB_DEVICE_EVENT_DATA_STREAM_ERROR)) {}

void StreamSession::begin() {
    const std::lock_guard lock(mutex);
    logLine(LogLevel::Info, "%s: stream on endpoint 0x%02x started%s", deviceName.text(),
            static_cast<unsigned>(slots.front().transfer->endpoint),
            mode == StreamMode::Strict ? ", strict" : "");
    for (Slot &slot : slots) {
        if (failed || stopRequested)
            release(slot);
        else
            submitNext(slot);
    }
    events->post(started);
}

void StreamSession::completed(Slot &slot) {
    if (mayGoOnAfter(slot))
        submitNext(slot);
    else
        release(slot);
}

// Deals with what the transfer brought, and tells whether it is to be submitted again.
bool StreamSession::mayGoOnAfter(const Slot &slot) {
    const libusb_transfer &transfer = *slot.transfer;
    const bool ended = failed || stopRequested;
    const bool completed = transfer.status == LIBUSB_TRANSFER_COMPLETED;
    const bool whole = completed && transfer.actual_length == transfer.length;
    if (!whole && !ended)
        logBadTransfer(transfer);
    if (mode == StreamMode::Strict && (ended || !whole)) {
        if (!ended)
            fail();
        return false;
    }
    if (!completed)
        return false;
    bytesReceived += static_cast<uint64_t>(transfer.actual_length);
    return postFull(ring.transferCompleted(infos[slot.index])) && !ended;
}

bool StreamSession::postFull(uint64_t buffers) {
    for (; buffers > 0; --buffers) {
        if (!events->tryPost(VEXA_USB_DEVICE_EVENT_DATA_STREAM_BUFFER_FULL)) {
            logLine(LogLevel::Error, "%s: no memory for an event of the stream, which ends",
                    deviceName.text());
            fail();
            return false;
        }
        ++buffersReported;
    }
    return true;
}

void StreamSession::submitNext(Slot &slot) {
    if (submitPiece(slot))
        return;
    release(slot);
    fail();
}

bool StreamSession::submitPiece(Slot &slot) {
    DataStreamTransferInfo &info = infos[slot.index];
    if (!ring.nextTransfer(info)) {
        logFullRing();
        return false;
    }
    const int result = submit(slot, info.destination, static_cast<int>(info.transferLength));
    if (result != LIBUSB_SUCCESS)
        logRefusedTransfer(result);
    return result == LIBUSB_SUCCESS;
}

// Ends the run: what is in flight is cancelled, so that nothing gets written behind the gap.
void StreamSession::fail() {
    failed = true;
    cancelAll();
    events->post(error);
}

void StreamSession::logBadTransfer(const libusb_transfer &transfer) const {
    logLine(LogLevel::Error,
            "%s: stream on endpoint 0x%02x, after %" PRIu64 " bytes: %s with %d of %d bytes; %s",
            deviceName.text(), static_cast<unsigned>(transfer.endpoint), bytesReceived,
            transferStatusName(transfer.status), transfer.actual_length, transfer.length,
            mode == StreamMode::Strict
                ? "the stream ends"
                : "the rest is missing from the stream (VEXA_USB_STREAM=strict ends it here)");
}

void StreamSession::logFullRing() const {
    logLine(LogLevel::Error,
            "%s: the stream ends after %" PRIu64
            " bytes: no buffer is free, the caller holds %" PRIu64
            " that were reported full; give buffers back sooner, or start with more of them",
            deviceName.text(), bytesReceived, buffersReported - ring.buffersReleased());
}

void StreamSession::logRefusedTransfer(int result) const {
    std::array<char, 160> advice{};
    if (result == LIBUSB_ERROR_NO_MEM && logs(LogLevel::Error)) {
        const auto limit = usbfsMemoryLimit();
        std::snprintf(advice.data(), advice.size(),
                      "; the system allows all programs together %" PRIu64
                      " MiB for USB transfers: echo 256 > "
                      "/sys/module/usbcore/parameters/usbfs_memory_mb",
                      limit.value_or(0));
    }
    logLine(LogLevel::Error,
            "%s: the stream ends after %" PRIu64 " bytes: a transfer was refused: %s%s",
            deviceName.text(), bytesReceived, libusb_error_name(result), advice.data());
}

} // namespace vexausb
