#include "device/event_pipe.h"

#include <chrono>
#include <cstddef>
#include <utility>

#include "core/log.h"
#include "core/transfer_status.h"
#include "core/usb_connection.h"
#include "core/usbfs_limit.h"
#include "device/endpoint_error.h"

namespace vexausb {

namespace {

constexpr std::chrono::milliseconds kPatience{500};

size_t packetSizeOf(const UsbConnection &connection, uint8_t endpoint) {
    const int size = connection.maxPacketSize(endpoint);
    if (size < 0)
        throw EndpointError(libusb_error_name(size));
    if (size == 0)
        throw EndpointError("the endpoint has no packet size");
    return static_cast<size_t>(size);
}

} // namespace

std::shared_ptr<EventPipe> EventPipe::make(UsbConnection &connection, uint8_t endpoint,
                                           std::shared_ptr<DeviceEventQueue> events,
                                           const DeviceName &name) {
    auto pipe = std::make_shared<EventPipe>(Key(), connection, endpoint, std::move(events), name);
    connection.attach(pipe);
    return pipe;
}

EventPipe::EventPipe(Key /*key*/, const UsbConnection &connection, uint8_t endpoint,
                     std::shared_ptr<DeviceEventQueue> events, const DeviceName &name)
    : TransferSet(makeSlots(), connection.handle(), endpoint, kPatience),
      events_(std::move(events)),
      deviceName_(name),
      eventBuffer_(packetSizeOf(connection, endpoint)) {}

TransferSet::Slots EventPipe::makeSlots() {
    Slots slots;
    slots.push_back(std::make_unique<Slot>());
    return slots;
}

bool EventPipe::arm() {
    const MutexLock lock(mutex_);
    Slot &slot = *slots_.front();
    const int result = stopRequested_ ? LIBUSB_ERROR_NO_DEVICE : submitBuffer(slot);
    if (result == LIBUSB_SUCCESS)
        return true;
    logLine(LogLevel::Error, "%s: endpoint 0x%02x sends no events: its transfer was refused: %s%s",
            deviceName_.text(), static_cast<unsigned>(slot.transfer->endpoint),
            libusb_error_name(result), refusalAdvice(result).text.data());
    release(slot);
    return false;
}

void EventPipe::completed(Slot &slot) {
    if (slot.transfer->status != LIBUSB_TRANSFER_COMPLETED)
        logEnd(slot, transferStatusName(slot.transfer->status));
    else if (!postBytes(slot))
        logEnd(slot, "no memory for its events, of which some are lost");
    else if (submitNext(slot))
        return;
    release(slot);
}

int EventPipe::submitBuffer(Slot &slot) {
    return TransferSet::submit(slot, eventBuffer_.data(), static_cast<int>(eventBuffer_.size()));
}

bool EventPipe::submitNext(Slot &slot) {
    if (stopRequested_)
        return false;
    const int result = submitBuffer(slot);
    if (result != LIBUSB_SUCCESS)
        logEnd(slot, libusb_error_name(result));
    return result == LIBUSB_SUCCESS;
}

bool EventPipe::postBytes(const Slot &slot) {
    for (int i = 0; i < slot.transfer->actual_length; ++i) {
        if (!events_->tryPost(slot.transfer->buffer[i]))
            return false;
    }
    return true;
}

// An end that was asked for is not logged.
void EventPipe::logEnd(const Slot &slot, const char *reason) const {
    if (!stopRequested_)
        logLine(LogLevel::Error,
                "%s: the event pipe on endpoint 0x%02x has ended: %s; close the device and open it "
                "again to get events",
                deviceName_.text(), static_cast<unsigned>(slot.transfer->endpoint), reason);
}

} // namespace vexausb
