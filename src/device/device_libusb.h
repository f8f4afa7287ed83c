#pragma once

#include <cstdint>
#include <memory>

#include <libusb.h>

#include "core/device_name.h"
#include "core/mutex.h"
#include "core/usb_connection.h"
#include "device/abstract_device.h"
#include "device/event_pipe.h"
#include "device/stream_session.h"

namespace vexausb {

/*
 * An opened device reached through libusb; it uses interface 0 alone.
 *
 * Life: takes over an open libusb handle as a UsbConnection.  The last fini closes that
 * connection; the device then lives on, answering errors, until its handle is dropped.  Every use
 * of the libusb handle therefore goes through the connection's gate.
 *
 * Threads: any caller's; the library does not serialise transfers on one device.
 */
class DeviceLibUSB final : public AbstractDevice {
public:
    // Takes the handle over unless it throws.
    DeviceLibUSB(libusb_device_handle *handle, DeviceEventHandler handler, const DeviceName &name);
    ~DeviceLibUSB() override;

    void close() override EXCLUDES(streamMutex_);
    bool isConnected() const override { return static_cast<bool>(connection_->use()); }

    int32_t getDeviceDescriptor(_vexa_usb_device_descriptor &record) override;
    int32_t getMaxPacketSize(uint8_t endpoint, uint16_t &size) override;

    int32_t controlTransfer(int32_t direction, int32_t type, int32_t recipient, uint8_t request,
                            uint16_t value, uint16_t index, uint8_t *data, uint64_t length,
                            uint64_t *transferred) override;
    int32_t interruptRead(uint8_t endpoint, uint8_t *data, uint64_t length,
                          uint64_t *transferred) override;
    int32_t interruptWrite(uint8_t endpoint, const uint8_t *data, uint64_t length,
                           uint64_t *transferred) override;
    int32_t bulkRead(uint8_t endpoint, uint8_t *data, uint64_t length,
                     uint64_t *transferred) override;
    int32_t bulkWrite(uint8_t endpoint, const uint8_t *data, uint64_t length,
                      uint64_t *transferred) override;

    int32_t eventPipeEnable(uint8_t endpoint) override EXCLUDES(eventPipeMutex_);
    int32_t eventPipeDisable() override EXCLUDES(eventPipeMutex_);

    int32_t dataStreamStart(uint8_t endpoint, uint64_t bufferSize, uint64_t bufferCount) override
        EXCLUDES(streamMutex_);
    int32_t dataStreamStop() override EXCLUDES(streamMutex_);
    int32_t dataStreamBufferLock(uint8_t *&data, uint64_t &size) override EXCLUDES(streamMutex_);
    int32_t dataStreamBufferUnlock() override EXCLUDES(streamMutex_);

private:
    using SynchronousTransfer = decltype(&libusb_bulk_transfer);

    void claim(libusb_device_handle *handle);
    int maxPacketSize(uint8_t endpoint);
    int32_t transferChunked(SynchronousTransfer transfer, uint8_t endpoint, uint8_t *data,
                            uint64_t length, uint64_t *transferred);
    int32_t interruptTransferChunked(uint8_t endpoint, uint8_t *data, uint64_t length,
                                     uint64_t *transferred);
    int32_t bulkTransferChunked(uint8_t endpoint, uint8_t *data, uint64_t length,
                                uint64_t *transferred);

    void logFailedTransfer(uint8_t endpoint, int result) const;
    // Answers `status`.
    int32_t logRefusedEndpoint(uint8_t endpoint, const char *reason, int32_t status) const;

    const DeviceName deviceName_;
    libusb_device_descriptor descriptor_{}; // constant once constructed
    std::shared_ptr<UsbConnection> connection_;

    // Lets one thread at a time enable or disable; under it eventPipeActive_ is written.  No libusb
    // callback takes it.
    Mutex eventPipeMutex_;
    // Once a pipe was made, for the rest of the device's life, even if its transfer was refused.
    std::shared_ptr<EventPipe> eventPipe_ GUARDED_BY(eventPipeMutex_);

    // Lets one thread at a time start, stop, lock or unlock; under it dataStreamActive_ is written.
    // No libusb callback takes it.
    Mutex streamMutex_;
    std::shared_ptr<StreamSession> stream_ GUARDED_BY(streamMutex_);
    // From a start, even one that failed, to the stop; prepared so that a stop needs no memory.
    DeviceEventQueue::Prepared streamStopped_ GUARDED_BY(streamMutex_);
};

} // namespace vexausb
