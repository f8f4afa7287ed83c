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
 * Keeps one IN transfer in flight and turns every byte that it brings into a device event.
 *
 * Life: held by its device, by the connection that ends it, and by the transfer while that is in
 * flight.  It holds the device's event queue, not the device: a completion after the device's end
 * posts to a queue that delivers nothing any more.  A pipe is armed once.  It ends for good by
 * stop(), or when its transfer fails; only the log tells of the latter.
 *
 * Threads: arm() on the caller's thread, completed() on whichever thread handles libusb's events.
 *
 * The transfer is submitted as a bulk transfer to an interrupt endpoint, too; the kernel uses the
 * type that the endpoint has.
 */
class EventPipe final : public TransferSet {
public:
    // A pipe that is ready to be armed, and attached to the connection, which ends it when it
    // closes.  The caller holds a Use of the connection.  Throws std::bad_alloc, or EndpointError
    // if the device has no such endpoint.
    static std::shared_ptr<EventPipe> make(UsbConnection &connection, uint8_t endpoint,
                                           std::shared_ptr<DeviceEventQueue> events,
                                           const DeviceName &name);

    // Only make() can have a Key.
    class Key {
        friend class EventPipe;
        Key() = default;
    };
    EventPipe(Key, const UsbConnection &connection, uint8_t endpoint,
              std::shared_ptr<DeviceEventQueue> events, const DeviceName &name);

    // Submits the transfer.  False when it was refused; the pipe can only be released then.
    bool arm() EXCLUDES(mutex_);

private:
    static Slots makeSlots();
    void completed(Slot &slot) override REQUIRES(mutex_);
    int submitBuffer(Slot &slot) REQUIRES(mutex_);
    bool submitNext(Slot &slot) REQUIRES(mutex_);
    bool postBytes(const Slot &slot) REQUIRES(mutex_);
    void logEnd(const Slot &slot, const char *reason) const REQUIRES(mutex_);

    const std::shared_ptr<DeviceEventQueue> events_;
    const DeviceName deviceName_;
    // One packet; libusb writes to it while the transfer is in flight.
    std::vector<uint8_t> eventBuffer_;
};

} // namespace vexausb
