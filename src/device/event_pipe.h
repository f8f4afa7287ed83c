#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "core/device_name.h"
#include "core/transfer_set.h"
#include "device/abstract_device.h"

namespace vexausb {

class UsbConnection;

/*
 * Keeps one IN transfer armed and turns every byte of every packet into a device event.
 *
 * Life: held by its device, by the connection that is to end it, and by the transfer while that is
 * in flight; it knows the device's event queue, not the device, so a completion after the device's
 * end finds valid memory and posts to a queue that delivers nothing any more.  A pipe is armed once
 * and ends for good, by stop() or when its transfer ends with an error, which the log alone tells.
 *
 * Threads: arm() on the caller's thread, completed() on whichever thread handles libusb's events:
 * of a completion and a stop, the one that comes second ends the transfer.
 *
 * The transfer is a bulk transfer whatever the endpoint's own type; the kernel sees to the latter.
 */
class EventPipe final : public TransferSet {
public:
    // A pipe that is ready to be armed and that the connection ends when it closes.  The caller
    // holds a Use of the connection.  Throws std::bad_alloc, or EndpointError where the device has
    // no such endpoint.
    static std::shared_ptr<EventPipe> make(UsbConnection &connection, uint8_t endpoint,
                                           std::shared_ptr<DeviceEventQueue> events,
                                           const DeviceName &name);

    // For make().
    EventPipe(const UsbConnection &connection, uint8_t endpoint,
              std::shared_ptr<DeviceEventQueue> events, const DeviceName &name);

    // False when the transfer was refused; the pipe is of no use then.
    bool arm() EXCLUDES(mutex_);

private:
    static Slots makeSlots();
    void completed(Slot &slot) override REQUIRES(mutex_);
    int submit(Slot &slot) REQUIRES(mutex_);
    bool submitNext(Slot &slot) REQUIRES(mutex_);
    bool postBytes(const Slot &slot) REQUIRES(mutex_);
    void logEnd(const Slot &slot, const char *reason) const REQUIRES(mutex_);

    const std::shared_ptr<DeviceEventQueue> events_;
    const DeviceName deviceName_;
    std::vector<uint8_t> buffer_; // one packet; the transfer's once it is armed
};

} // namespace vexausb
