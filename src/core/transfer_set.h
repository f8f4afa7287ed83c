#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include <libusb.h>

#include "core/event_duty.h"
#include "core/mutex.h"

namespace vexausb {

// What becomes of memory that the caller may still be reading.
enum class CallerMemory { Stays, Ends };

/*
 * A fixed number of bulk transfers that complete, and are submitted again, until they are stopped.
 * The derived class says what a completion means, owns the memory that the transfers write to, and
 * may keep data of its own with each transfer.
 *
 * Life: every transfer in flight holds a reference to its set, so the set and that memory live as
 * long as libusb may still touch them, whatever becomes of the device.  A set is stopped once, for
 * good.
 *
 * Threads: stop(), waitIdle() and abandon() on any thread; completions on whichever thread handles
 * libusb's events at that moment.  The mutex makes "look whether to stop, submit" one step against
 * "ask to stop, cancel", so a stop misses no resubmission.  libusb's submit and cancel run no
 * callback, so they are called under it.
 */
class TransferSet : public std::enable_shared_from_this<TransferSet> {
public:
    virtual ~TransferSet() = default;
    TransferSet(const TransferSet &) = delete;
    TransferSet &operator=(const TransferSet &) = delete;

    // Cancels what is in flight; nothing is submitted any more.
    void stop() EXCLUDES(mutex_);
    // After stop(), and only while an event loop delivers completions: until nothing is in flight,
    // or the stop is longer ago than the time limit.
    void waitIdle() EXCLUDES(mutex_);
    // Memory that belongs to the handle, and that nothing uses at the moment, is given back.
    void releaseUnused() EXCLUDES(mutex_);
    // With nothing in flight that writes there: memory that belongs to the handle is given back.
    // Called before the handle is closed, and with Ends once more afterwards, for what had to stay.
    void releaseMemory(CallerMemory callers) EXCLUDES(mutex_);
    // After the handle was closed: libusb has forgotten what was still in flight and will not call
    // back.
    void abandon() EXCLUDES(mutex_);

protected:
    // One transfer of the set.  What is in it belongs to whoever holds the set's mutex; it lives as
    // long as the set does.
    struct Slot {
        Slot() = default;
        virtual ~Slot() { libusb_free_transfer(transfer); }
        Slot(const Slot &) = delete;
        Slot &operator=(const Slot &) = delete;

        TransferSet *set = nullptr;
        libusb_transfer *transfer = nullptr;   // null once released
        std::shared_ptr<TransferSet> inFlight; // the set itself, while libusb has the transfer
    };
    using Slots = std::vector<std::unique_ptr<Slot>>;

    // Gives each of the slots a transfer; throws std::bad_alloc when there is none.  waitIdle()
    // gives up when the stop is longer ago than `stopTimeout`; without it, never.
    TransferSet(Slots slots, libusb_device_handle *handle, uint8_t endpoint,
                std::optional<std::chrono::milliseconds> stopTimeout = std::nullopt);

    // The transfer has ended, and is no longer in flight.  Either submits the slot again or
    // releases it: only a release wakes waitIdle().  Runs under libusb's locks: throws nothing, and
    // neither opens nor closes a handle.
    virtual void completed(Slot &slot) REQUIRES(mutex_) = 0;
    virtual void doReleaseUnused() REQUIRES(mutex_) {}
    virtual void doReleaseMemory(CallerMemory /*callers*/) REQUIRES(mutex_) {}
    // libusb's answer.  When refused, the slot is to be released: its transfer holds a reference
    // to the device even so, and must not outlive the libusb context.
    int submit(Slot &slot, uint8_t *buffer, int length) REQUIRES(mutex_);
    // The transfer is not needed any more.
    void release(Slot &slot) REQUIRES(mutex_);
    void cancelAll() REQUIRES(mutex_);
    // Whether nothing is in flight.
    bool isIdle() const REQUIRES(mutex_);

    Mutex mutex_;
    bool stopRequested_ GUARDED_BY(mutex_) = false;
    const Slots slots_;

private:
    static void LIBUSB_CALL onComplete(libusb_transfer *transfer) noexcept;

    // While any is in flight.
    std::optional<event_duty::Reserved> duty_ GUARDED_BY(mutex_);
    const std::optional<std::chrono::milliseconds> stopTimeout_;
    std::chrono::steady_clock::time_point stopDeadline_ GUARDED_BY(mutex_); // set by stop()
    Condition released_;
};

} // namespace vexausb
