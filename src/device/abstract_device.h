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
 * An opened device as the exported functions see it.  DeviceLibUSB implements it.
 *
 * Life: made by its list entry's open(), held by the caller's handle.  The entry has a weak
 * reference, which it turns into a strong one only while it calls setRemoved().  A call holds a
 * strong reference until it returns, because a callback that it makes may close the handle.
 * Whichever of these three releases the last reference destroys the device, on its own thread.  It
 * does not matter which: close() has given back before everything that the device held of the bus.
 *
 * Threads: calls come on callers' threads.  The event queue's thread, "usb-device" with a sequence
 * number, runs the caller's callback.  close() stops that thread without waiting for it, so a
 * callback may close its own device.  A callback that is running finishes; events that are still
 * queued are dropped.
 */
class AbstractDevice {
public:
    // Starts the event queue's thread.  Throws, and leaves no thread behind, when that fails.
    explicit AbstractDevice(DeviceEventHandler handler);
    virtual ~AbstractDevice();
    AbstractDevice(const AbstractDevice &) = delete;
    AbstractDevice &operator=(const AbstractDevice &) = delete;

    // Sets the removed mark and posts event 256.  The list entry calls it, once.  Each further call
    // would post the event again.
    void setRemoved();

    // The calls answer a status.
    virtual int32_t getKernelDriverVersion(_vexa_usb_version &version);
    virtual int32_t getDeviceDescriptor(_vexa_usb_device_descriptor &record) = 0;
    virtual int32_t getMaxPacketSize(uint8_t endpoint, uint16_t &size) = 0;

    // With `transferred` null, a short transfer is an error; else it is a success, and *transferred
    // tells how much came.  Bulk and interrupt transfers add to it: set it to 0 before the call.
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

    // Called when the caller closes the handle.  Before it returns it gives back everything that
    // the device holds of the bus, even if others still have a reference.  A second call does
    // nothing.  Allocates no memory.
    virtual void close();

    // Whether the device can still be asked; false once its connection closes.
    virtual bool isConnected() const = 0;
    bool isRemoved() const { return removed_.load(std::memory_order_acquire); }
    bool hasEventPipe() const { return eventPipeSupported_; }
    bool isEventPipeActive() const { return eventPipeActive_.load(); }
    bool hasDataStream() const { return dataStreamMemorySizeMax_ != 0 && dataStreamRateMax_ != 0; }
    bool isDataStreamActive() const { return dataStreamActive_.load(); }
    uint64_t memorySizeMax() const { return dataStreamMemorySizeMax_; }
    uint64_t rateMax() const { return dataStreamRateMax_; }

protected:
    const std::shared_ptr<DeviceEventQueue> eventQueue_;
    // Set by the derived constructor, constant afterwards.
    bool eventPipeSupported_ = false;
    // Written by the derived class, under its mutexes; read by any thread.
    std::atomic<bool> eventPipeActive_{false};
    std::atomic<bool> dataStreamActive_{false};
    // Set by the derived constructor, constant afterwards; 0 means that there is no data stream.
    uint64_t dataStreamMemorySizeMax_ = 0;
    uint64_t dataStreamRateMax_ = 0;

private:
    std::atomic<bool> removed_{false};
    DeviceEventQueue::Prepared removal_; // until setRemoved() posts it
};

} // namespace vexausb

// What the caller's handle points to.
struct _vexa_usb_device {
    std::shared_ptr<vexausb::AbstractDevice> device;
};
