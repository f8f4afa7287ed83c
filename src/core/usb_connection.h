#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "core/global_state.h"
#include "core/mutex.h"
#include "core/use_gate.h"

struct libusb_device_handle;

namespace vexausb {

class TransferSet;

/*
 * One open libusb handle with interface 0 claimed, and everything that is in flight on it.
 *
 * Life: made by connection_registry::connect, closed by the first of these: its device's close, the
 * last fini, or the end of transfers whose completions nobody delivers.  The object outlives its
 * handle: a closed connection lets nobody in any more.  Closing needs no memory.
 *
 * Threads: any.  close() first turns synchronous users away and waits for those inside (a long
 * transfer looks before each piece whether the gate has closed, so that takes one piece's time
 * limit at most), then ends the asynchronous transfers.  libusb_close takes locks that libusb holds
 * while it runs transfer and hot-plug callbacks, so none of the mutexes that those take is held
 * there.
 */
class UsbConnection {
public:
    // Takes the handle over; `eventLoopRuns` says whether completions get delivered for as long as
    // it is open.
    UsbConnection(libusb_device_handle *handle, bool eventLoopRuns);
    UsbConnection(const UsbConnection &) = delete;
    UsbConnection &operator=(const UsbConnection &) = delete;

    // The handle may be used as long as the result is held; false once the connection closes, and
    // in a child that was forked while the library was in use.
    UseGate::Use use() { return forkedInUse.load() ? UseGate::Use::none() : gate_.enter(); }

    // The following four are for whoever holds a Use.
    libusb_device_handle *handle() const { return handle_; }
    // Whether completions get delivered.
    bool eventLoopRuns() const { return loopRuns_; }
    // An endpoint's wMaxPacketSize, or a libusb error code.
    int maxPacketSize(uint8_t endpoint) const;
    // Has close() end these transfers too.
    void attach(std::shared_ptr<TransferSet> transfers) EXCLUDES(mutex_);
    // Harmless for one that is not attached.  Any thread.
    void detach(const std::shared_ptr<TransferSet> &transfers) EXCLUDES(mutex_);

    // Ends these transfers and forgets them; no memory of theirs is written to afterwards.
    void end(const std::shared_ptr<TransferSet> &transfers) EXCLUDES(mutex_, closing_);
    // Gives back what its transfer sets have mapped of the device and do not use.
    void releaseUnused() EXCLUDES(mutex_);
    // Begins what close() completes, without waiting for anything.
    void prepareClose() EXCLUDES(mutex_);
    // Returns when the handle is closed, also when another thread is at it.
    void close() EXCLUDES(mutex_, closing_);

private:
    std::vector<std::shared_ptr<TransferSet>> takeTransfers() EXCLUDES(mutex_);

    libusb_device_handle *const handle_;
    const bool loopRuns_;
    UseGate gate_{true};

    Mutex closing_; // held by the thread that closes; no libusb callback takes it
    bool closed_ GUARDED_BY(closing_) = false;

    Mutex mutex_; // a set's own is taken inside it
    std::vector<std::shared_ptr<TransferSet>> transferSets_ GUARDED_BY(mutex_);
};

} // namespace vexausb
