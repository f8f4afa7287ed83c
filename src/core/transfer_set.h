#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include <libusb.h>

#include "core/event_duty.h"

namespace vexausb {

class TransferSet : public std::enable_shared_from_this<TransferSet> {
public:
    virtual ~TransferSet();
    TransferSet(const TransferSet &) = delete;
    TransferSet &operator=(const TransferSet &) = delete;

    // Before anything else: the transfers, of which none is in flight yet.
    bool allocate(size_t count, libusb_device_handle *handle, uint8_t endpoint);
    void stop();
    void waitIdle();
    void abandon();

protected:
    // waitIdle() gives up when the stop was that long ago; without it, never.
    explicit TransferSet(std::optional<std::chrono::milliseconds> waitingLimit = std::nullopt)
        : patience(waitingLimit) {}

    // One transfer of the set.
    struct Slot {
        TransferSet *set = nullptr;
        size_t index = 0;
        libusb_transfer *transfer = nullptr;
        std::shared_ptr<TransferSet> inFlight; // the set itself, while libusb has the transfer
    };

    // These are called with `mutex` held.
    virtual void completed(Slot &slot) = 0;
    // libusb's answer.  When refused, the slot is to be released: its transfer refers to the device
    // all the same, and must not outlive the libusb context.
    int submit(Slot &slot, uint8_t *buffer, int length);
    void release(Slot &slot);
    void cancelAll();

    std::mutex mutex;
    bool stopRequested = false;
    std::vector<Slot> slots; // its size is fixed by allocate()

private:
    static void LIBUSB_CALL onComplete(libusb_transfer *transfer) noexcept;
    bool idle() const;

    std::optional<EventDuty::Reserved> duty; // while any is in flight; guarded by mutex
    const std::optional<std::chrono::milliseconds> patience;
    std::chrono::steady_clock::time_point patienceEnds; // set by stop(); guarded by mutex
    std::condition_variable released;
};

} // namespace vexausb
