#include "device/event_pipe.h"

#include <chrono>
#include <utility>

#include "core/log.h"
#include "core/transfer_status.h"

namespace vexausb {

/*
 * Keeps one IN transfer armed and turns every byte of every packet into a device event.
 *
 * Life: held by its device and by the transfer while that is in flight; it knows the device's event
 * queue, not the device, so a completion after the device's end finds valid memory and posts to a
 * queue that delivers nothing any more.  A pipe is armed once and ends for good, by stop() or when
 * its transfer ends with an error, which the log alone tells.
 *
 * Threads: arm() on the caller's thread, completed() on whichever thread handles libusb's events,
 * both under `mutex`: of a completion and a stop, the one that comes second ends the transfer.
 *
 * The transfer is a bulk transfer whatever the endpoint's own type; the kernel sees to the latter.
 */
namespace {

constexpr std::chrono::milliseconds kPatience{500};

} // namespace

EventPipe::EventPipe(std::shared_ptr<DeviceEventQueue> deviceEvents, const DeviceName &name)
    : TransferSet(kPatience), events(std::move(deviceEvents)), deviceName(name) {}

void EventPipe::setPacketSize(int packetSize) {
    eventBuffer.resize(static_cast<size_t>(packetSize));
}

bool EventPipe::arm() {
    const std::lock_guard lock(mutex);
    if (submitNext(slots.front()))
        return true;
    release(slots.front());
    return false;
}

void EventPipe::completed(Slot &slot) {
    if (slot.transfer->status != LIBUSB_TRANSFER_COMPLETED)
        logEnd(slot, transferStatusName(slot.transfer->status));
    else if (!postBytes(slot))
        logEnd(slot, "no memory for its events, of which some are lost");
    else if (submitNext(slot))
        return;
    release(slot);
}

bool EventPipe::submitNext(Slot &slot) {
    if (stopRequested)
        return false;
    const int result = submit(slot, eventBuffer.data(), static_cast<int>(eventBuffer.size()));
    if (result != LIBUSB_SUCCESS)
        logEnd(slot, libusb_error_name(result));
    return result == LIBUSB_SUCCESS;
}

bool EventPipe::postBytes(const Slot &slot) {
    for (int i = 0; i < slot.transfer->actual_length; ++i) {
        if (!events->tryPost(slot.transfer->buffer[i]))
            return false;
    }
    return true;
}

// An end that was asked for is no news.
void EventPipe::logEnd(const Slot &slot, const char *reason) const {
    if (!stopRequested)
        logLine(LogLevel::Error,
                "%s: the event pipe on endpoint 0x%02x has ended: %s; close the device and open it "
                "again to get events",
                deviceName.text(), static_cast<unsigned>(slot.transfer->endpoint), reason);
}

} // namespace vexausb
