#include "core/transfer_set.h"

#include <algorithm>
#include <utility>

namespace vexausb {

/*
 * A fixed number of bulk transfers that complete, and are submitted again, until they are stopped.
 * The derived class says what a completion means and owns the memory that the transfers write to.
 *
 * Life: every transfer in flight holds a reference to its set, so the set and that memory live as
 * long as libusb may still touch them, whatever becomes of the device.
 *
 * Threads and locks: completions run on whichever thread handles libusb's events at that moment.
 * `mutex` guards everything here and in the derived class's transfer handling.  It makes "look
 * whether to stop, submit" one step against "ask to stop, cancel", so a stop misses no
 * resubmission.  libusb's submit and cancel run no callback, so they may be called under it.
 */
TransferSet::~TransferSet() {
    for (const Slot &slot : slots)
        libusb_free_transfer(slot.transfer);
}

bool TransferSet::allocate(size_t count, libusb_device_handle *handle, uint8_t endpoint) {
    const std::lock_guard lock(mutex);
    slots.resize(count);
    for (size_t i = 0; i < count; ++i) {
        Slot &slot = slots[i];
        slot.set = this;
        slot.index = i;
        slot.transfer = libusb_alloc_transfer(0);
        if (slot.transfer == nullptr)
            return false;
        libusb_fill_bulk_transfer(slot.transfer, handle, endpoint, nullptr, 0, onComplete, &slot,
                                  0);
    }
    return true;
}

// The reference is taken before libusb gets the transfer, since the completion may come first.
int TransferSet::submit(Slot &slot, uint8_t *buffer, int length) {
    if (!duty)
        duty.emplace();
    slot.transfer->buffer = buffer;
    slot.transfer->length = length;
    slot.inFlight = shared_from_this();
    const int result = libusb_submit_transfer(slot.transfer);
    if (result == LIBUSB_SUCCESS)
        return result;
    slot.inFlight.reset();
    if (idle())
        duty.reset();
    return result;
}

void TransferSet::release(Slot &slot) {
    libusb_free_transfer(std::exchange(slot.transfer, nullptr));
    if (idle())
        duty.reset();
    released.notify_all();
}

void TransferSet::cancelAll() {
    for (const Slot &slot : slots) {
        if (slot.inFlight != nullptr)
            libusb_cancel_transfer(slot.transfer);
    }
}

// `self` is declared before the lock, so that the set outlives the unlocking.  Nothing may be
// thrown through libusb, whose locks are held.
void TransferSet::onComplete(libusb_transfer *transfer) noexcept {
    Slot &slot = *static_cast<Slot *>(transfer->user_data);
    std::shared_ptr<TransferSet> self;
    const std::lock_guard lock(slot.set->mutex);
    self = std::move(slot.inFlight);
    self->completed(slot);
}

void TransferSet::stop() {
    const std::lock_guard lock(mutex);
    if (std::exchange(stopRequested, true))
        return;
    if (patience)
        patienceEnds = std::chrono::steady_clock::now() + *patience;
    cancelAll();
}

// After stop(), and only while an event loop delivers completions.
void TransferSet::waitIdle() {
    std::unique_lock lock(mutex);
    const auto isIdle = [this]() { return idle(); };
    if (patience)
        released.wait_until(lock, patienceEnds, isIdle);
    else
        released.wait(lock, isIdle);
}

// After the handle was closed: libusb has forgotten what was still in flight and will not call
// back.
void TransferSet::abandon() {
    const std::shared_ptr<TransferSet> self = shared_from_this(); // outlives the unlocking
    const std::lock_guard lock(mutex);
    for (Slot &slot : slots) {
        if (slot.inFlight == nullptr)
            continue;
        slot.inFlight.reset();
        release(slot);
    }
}

bool TransferSet::idle() const {
    return std::none_of(slots.begin(), slots.end(),
                        [](const Slot &slot) { return slot.inFlight != nullptr; });
}

} // namespace vexausb
