#include "core/transfer_set.h"

#include <algorithm>
#include <new>
#include <utility>

namespace vexausb {

TransferSet::TransferSet(Slots slots, libusb_device_handle *handle, uint8_t endpoint,
                         std::optional<std::chrono::milliseconds> stopTimeout)
    : slots_(std::move(slots)), stopTimeout_(stopTimeout) {
    for (const auto &slot : slots_) {
        slot->set = this;
        slot->transfer = libusb_alloc_transfer(0);
        if (slot->transfer == nullptr)
            throw std::bad_alloc();
        libusb_fill_bulk_transfer(slot->transfer, handle, endpoint, nullptr, 0, onComplete,
                                  slot.get(), 0);
    }
}

// The reference is taken before libusb gets the transfer, since the completion may come first.
int TransferSet::submit(Slot &slot, uint8_t *buffer, int length) {
    if (!duty_)
        duty_.emplace();
    slot.transfer->buffer = buffer;
    slot.transfer->length = length;
    slot.inFlight = shared_from_this();
    const int result = libusb_submit_transfer(slot.transfer);
    if (result == LIBUSB_SUCCESS)
        return result;
    slot.inFlight.reset();
    if (isIdle())
        duty_.reset();
    return result;
}

void TransferSet::release(Slot &slot) {
    libusb_free_transfer(std::exchange(slot.transfer, nullptr));
    if (isIdle())
        duty_.reset();
    released_.notifyAll();
}

void TransferSet::cancelAll() {
    for (const auto &slot : slots_) {
        if (slot->inFlight != nullptr)
            libusb_cancel_transfer(slot->transfer);
    }
}

// `self` is declared before the lock, so that the set outlives the unlocking.  Nothing may be
// thrown through libusb, whose locks are held.
void TransferSet::onComplete(libusb_transfer *transfer) noexcept {
    Slot &slot = *static_cast<Slot *>(transfer->user_data);
    TransferSet &set = *slot.set;
    std::shared_ptr<TransferSet> self;
    const MutexLock lock(set.mutex_);
    self = std::move(slot.inFlight);
    set.completed(slot);
}

void TransferSet::stop() {
    const MutexLock lock(mutex_);
    if (std::exchange(stopRequested_, true))
        return;
    if (stopTimeout_)
        stopDeadline_ = std::chrono::steady_clock::now() + *stopTimeout_;
    cancelAll();
}

void TransferSet::waitIdle() {
    const MutexLock lock(mutex_);
    const auto isDone = [this]() REQUIRES(mutex_) { return isIdle(); };
    if (stopTimeout_)
        released_.waitUntil(mutex_, stopDeadline_, isDone);
    else
        released_.wait(mutex_, isDone);
}

void TransferSet::releaseUnused() {
    const MutexLock lock(mutex_);
    doReleaseUnused();
}

void TransferSet::releaseMemory(CallerMemory callers) {
    const MutexLock lock(mutex_);
    doReleaseMemory(callers);
}

void TransferSet::abandon() {
    const std::shared_ptr<TransferSet> self = shared_from_this(); // outlives the unlocking
    const MutexLock lock(mutex_);
    for (const auto &slot : slots_) {
        if (slot->inFlight == nullptr)
            continue;
        slot->inFlight.reset();
        release(*slot);
    }
}

bool TransferSet::isIdle() const {
    return std::none_of(slots_.begin(), slots_.end(),
                        [](const auto &slot) { return slot->inFlight != nullptr; });
}

} // namespace vexausb
