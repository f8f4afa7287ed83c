#include "device/event_pipe.h"

#include <chrono>
#include <utility>

namespace vexausb {

/*
 * Keeps one IN transfer armed and turns every byte of every packet into a device event.
 *
 * Life: held by its device and by the transfer while that is in flight; it knows the device's event
 * queue, not the device, so a completion after the device's end finds valid memory and posts to a
 * queue that delivers nothing any more.  A pipe is armed once and ends for good, by stop() or when
 * its transfer ends with an error, which is told to nobody.
 *
 * Threads: arm() on the caller's thread, completed() on whichever thread handles libusb's events,
 * both under `mutex`: of a completion and a stop, the one that comes second ends the transfer.
 *
 * The transfer is a bulk transfer whatever the endpoint's own type; the kernel sees to the latter.
 */
namespace {

constexpr std::chrono::milliseconds kPatience{500};

} // namespace

EventPipe::EventPipe(std::shared_ptr<DeviceEventQueue> deviceEvents)
    : TransferSet(kPatience), events(std::move(deviceEvents)) {}

void EventPipe::setPacketSize(int packetSize) {
    eventBuffer.resize(static_cast<size_t>(packetSize));
}

bool EventPipe::arm() {
    const std::lock_guard lock(mutex);
    if (!stopRequested &&
        submit(slots.front(), eventBuffer.data(), static_cast<int>(eventBuffer.size())))
        return true;
    release(slots.front());
    return false;
}

void EventPipe::completed(Slot &slot) {
    if (slot.transfer->status == LIBUSB_TRANSFER_COMPLETED) {
        for (int i = 0; i < slot.transfer->actual_length; ++i)
            events->post(slot.transfer->buffer[i]);
        if (!stopRequested && submit(slot, slot.transfer->buffer, slot.transfer->length))
            return;
    }
    release(slot);
}

} // namespace vexausb
