#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>

#include "core/event_queue.h"
#include "vexa_usb.h"

namespace vexausb {

using DeviceEventQueue = EventQueue<_vexa_usb_device_event>;
using DeviceEventHandler = DeviceEventQueue::Handler;

/*
 * An opened device as the exported functions see it, whatever carries it.
 *
 * Life: made by its list entry's open(), held by the caller's handle.  The entry keeps a weak
 * reference, and turns it into a strong one only while it says that the device has gone.  So the
 * device is destroyed on the thread that closes the handle, or, when both happen at once, on the
 * thread that destroys the entry.  A call holds a reference, too, for callbacks that close from
 * within it.  Nothing depends on which of them comes last: close() has given everything back by
 * then.
 *
 * Threads: calls come on callers' threads; "usb-device" with a sequence number, owned by
 * its event queue, runs the caller's callback.  A close stops that worker without waiting for it,
 * so a callback may close its own device.  Of the events that are still queued when it returns
 * none is delivered; the one in hand, if there is one, still is.
 */
class AbstractDevice {
public:
    explicit AbstractDevice(DeviceEventHandler handler);
    virtual ~AbstractDevice();
    AbstractDevice(const AbstractDevice &) = delete;
    AbstractDevice &operator=(const AbstractDevice &) = delete;

    // Its list entry alone calls this.
    void setRemoved();
    virtual int32_t getKernelDriverVersion(_vexa_usb_version &version);
    virtual int32_t getDeviceDescriptor(_vexa_usb_device_descriptor &record) = 0;
    virtual int32_t getMaxPacketSize(uint8_t endpoint, uint16_t &size) = 0;

    virtual int32_t controlTransfer(int32_t direction, int32_t type, int32_t recipient,
                                    uint8_t request, uint16_t value, uint16_t index, uint8_t *data,
                                    uint64_t length, uint64_t *transferred) = 0;
    virtual int32_t interruptRead(uint8_t endpoint, uint8_t *data, uint64_t length,
                                  uint64_t *transferred) = 0;
    virtual int32_t interruptWrite(uint8_t endpoint, const uint8_t *data, uint64_t length,
                                   uint64_t *transferred) = 0;
    virtual int32_t bulkRead(uint8_t endpoint, uint8_t *data, uint64_t length,
                             uint64_t *transferred) = 0;
    virtual int32_t bulkWrite(uint8_t endpoint, const uint8_t *data, uint64_t length,
                              uint64_t *transferred) = 0;

    virtual int32_t eventPipeEnable(uint8_t endpoint) = 0;
    virtual int32_t eventPipeDisable() = 0;

    virtual int32_t dataStreamStart(uint8_t endpoint, uint64_t bufferSize,
                                    uint64_t bufferCount) = 0;
    virtual int32_t dataStreamStop() = 0;
    virtual int32_t dataStreamBufferLock(uint8_t *&data, uint64_t &size) = 0;
    virtual int32_t dataStreamBufferUnlock() = 0;

    // The handle's owner is done with the device: gives back what it holds of the bus before it
    // returns, whoever else still has a reference.  Needs no memory.
    virtual void close();

    bool isRemoved() const { return removed_.load(std::memory_order_acquire); }
    bool hasEventPipe() const { return eventPipeSupported_; }
    bool isEventPipeActive() const { return eventPipeActive_.load(); }
    bool hasDataStream() const { return dataStreamMemorySizeMax_ != 0 && dataStreamRateMax_ != 0; }
    bool isDataStreamActive() const { return dataStreamActive_.load(); }
    uint64_t memorySizeMax() const { return dataStreamMemorySizeMax_; }
    uint64_t rateMax() const { return dataStreamRateMax_; }

protected:
    const std::shared_ptr<DeviceEventQueue> eventQueue_;
    // Set while the device is constructed, constant afterwards.
    bool eventPipeSupported_ = false;
    // Written under the implementation's locks; read by any thread.
    std::atomic<bool> eventPipeActive_{false};
    std::atomic<bool> dataStreamActive_{false};
    // Set while the device is constructed, constant afterwards; 0 means no data stream.
    uint64_t dataStreamMemorySizeMax_ = 0;
    uint64_t dataStreamRateMax_ = 0;

private:
    std::atomic<bool> removed_{false};
    DeviceEventQueue::Prepared removal_; // until setRemoved() posts it
};

} // namespace vexausb

// What the caller's handle points to: the one strong reference to the opened device.
struct _vexa_usb_device {
    std::shared_ptr<vexausb::AbstractDevice> device;
};
