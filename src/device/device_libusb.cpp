#include "device/device_libusb.h"

#include <algorithm>
#include <cstdint>
#include <exception>
#include <new>
#include <stdexcept>
#include <utility>

#include "core/connection_registry.h"
#include "core/event_duty.h"
#include "core/log.h"
#include "core/status.h"
#include "device/endpoint_error.h"

namespace vexausb {

namespace {

struct RateLimit {
    uint16_t fromBcdUsb;
    uint64_t rateMax;
};

constexpr RateLimit kRateLimits[] = {{0x0300, 400000000}, {0x0200, 40000000}, {0x0110, 1000000}};
constexpr unsigned kTransferTimeoutMs = 1000;
constexpr uint64_t kTransferChunkSize = 524288;
constexpr uint64_t kStreamMemorySizeMax = 268435456;
constexpr const char *kNoMemory = "no memory; use fewer or smaller buffers";

uint64_t rateMaxFor(uint16_t bcdUsb) {
    for (const RateLimit &limit : kRateLimits) {
        if (bcdUsb >= limit.fromBcdUsb)
            return limit.rateMax;
    }
    return 0;
}

const char *claimAdvice(int result) {
    switch (result) {
    case LIBUSB_ERROR_BUSY:
        return "; another program, a kernel driver or another handle of this program has it";
    case LIBUSB_ERROR_NO_DEVICE:
        return "; the device has just left";
    case LIBUSB_ERROR_NOT_FOUND:
        return "; the device has no interface 0, or no configuration";
    default:
        return "; plug the device in again";
    }
}

} // namespace

DeviceLibUSB::DeviceLibUSB(libusb_device_handle *handle, DeviceEventHandler handler,
                           const DeviceName &name)
    : AbstractDevice(std::move(handler)), deviceName_(name) {
    claim(handle);
    eventPipeSupported_ = true;
    dataStreamMemorySizeMax_ = kStreamMemorySizeMax;
    dataStreamRateMax_ = rateMaxFor(descriptor_.bcdUSB);
    connection_ = connection_registry::connect(handle);
    if (connection_ == nullptr)
        throw std::runtime_error("the library is being finalised");
    logLine(LogLevel::Info, "%s: opened", deviceName_.text());
}

void DeviceLibUSB::claim(libusb_device_handle *handle) {
    if (libusb_kernel_driver_active(handle, 0) == 1) {
        const int detached = libusb_detach_kernel_driver(handle, 0);
        if (detached != LIBUSB_SUCCESS)
            logLine(LogLevel::Error,
                    "%s: cannot take interface 0 from its kernel driver: %s; unload that driver",
                    deviceName_.text(), libusb_error_name(detached));
    }
    const int claimed = libusb_claim_interface(handle, 0);
    if (claimed != LIBUSB_SUCCESS) {
        logLine(LogLevel::Error, "%s: cannot claim interface 0: %s%s", deviceName_.text(),
                libusb_error_name(claimed), claimAdvice(claimed));
        throw std::runtime_error(libusb_error_name(claimed));
    }
    const int read = libusb_get_device_descriptor(libusb_get_device(handle), &descriptor_);
    if (read != LIBUSB_SUCCESS)
        throw std::runtime_error(libusb_error_name(read));
}

DeviceLibUSB::~DeviceLibUSB() {
    DeviceLibUSB::close();
}

void DeviceLibUSB::close() {
    DeviceLibUSB::dataStreamStop();
    connection_->close();
    AbstractDevice::close();
}

// bcdDevice stands in bcdUSB's place, and bMaxPacketSize0 is left as the caller had it: callers
// of this record rely on both.
int32_t DeviceLibUSB::getDeviceDescriptor(_vexa_usb_device_descriptor &record) {
    record.bcdUSB = descriptor_.bcdDevice;
    record.bDeviceClass = descriptor_.bDeviceClass;
    record.bDeviceSubClass = descriptor_.bDeviceSubClass;
    record.bDeviceProtocol = descriptor_.bDeviceProtocol;
    record.idVendor = descriptor_.idVendor;
    record.idProduct = descriptor_.idProduct;
    record.bcdDevice = descriptor_.bcdDevice;
    record.iManufacturer = descriptor_.iManufacturer;
    record.iProduct = descriptor_.iProduct;
    record.iSerialNumber = descriptor_.iSerialNumber;
    record.bNumConfigurations = descriptor_.bNumConfigurations;
    return VEXA_USB_STATUS_SUCCESS;
}

int DeviceLibUSB::maxPacketSize(uint8_t endpoint) {
    const UseGate::Use use = connection_->use();
    if (!use)
        return LIBUSB_ERROR_NO_DEVICE;
    return connection_->maxPacketSize(endpoint);
}

int32_t DeviceLibUSB::getMaxPacketSize(uint8_t endpoint, uint16_t &size) {
    const int result = maxPacketSize(endpoint);
    if (result == LIBUSB_ERROR_NOT_FOUND)
        return VEXA_USB_STATUS_ENDPOINT_NOT_SUPPORTED;
    if (result < 0)
        return VEXA_USB_STATUS_UNKNOWN;
    size = static_cast<uint16_t>(result);
    return VEXA_USB_STATUS_SUCCESS;
}

// The fields of bmRequestType are combined without masking: a value out of range spills over.
int32_t DeviceLibUSB::controlTransfer(int32_t direction, int32_t type, int32_t recipient,
                                      uint8_t request, uint16_t value, uint16_t index,
                                      uint8_t *data, uint64_t length, uint64_t *transferred) {
    if (length > UINT16_MAX)
        return VEXA_USB_STATUS_UNKNOWN;
    const UseGate::Use use = connection_->use();
    if (!use)
        return VEXA_USB_STATUS_UNKNOWN;
    const uint32_t requestType = (static_cast<uint32_t>(direction) << 7) |
                                 (static_cast<uint32_t>(type) << 5) |
                                 static_cast<uint32_t>(recipient);
    const int result = libusb_control_transfer(
        connection_->handle(), static_cast<uint8_t>(requestType), request, value, index, data,
        static_cast<uint16_t>(length), kTransferTimeoutMs);
    if (result < 0) {
        logFailedTransfer(0, result);
        return statusFromLibusbError(result);
    }
    event_duty::noteSynchronousTransfer();
    if (transferred != nullptr) {
        *transferred = static_cast<uint64_t>(result);
        return VEXA_USB_STATUS_SUCCESS;
    }
    return static_cast<uint64_t>(result) == length ? VEXA_USB_STATUS_SUCCESS
                                                   : VEXA_USB_STATUS_NOT_ALL_DATA_TRANSFERRED;
}

// A short piece ends the transfer: quietly for a caller that counts, else as an error.
int32_t DeviceLibUSB::transferChunked(SynchronousTransfer transfer, uint8_t endpoint, uint8_t *data,
                                      uint64_t length, uint64_t *transferred) {
    const UseGate::Use use = connection_->use();
    while (length > 0) {
        if (!use || use.closeRequested())
            return VEXA_USB_STATUS_UNKNOWN;
        const auto chunk = static_cast<int>(std::min(length, kTransferChunkSize));
        int actual = 0;
        const int result =
            transfer(connection_->handle(), endpoint, data, chunk, &actual, kTransferTimeoutMs);
        if (result != LIBUSB_SUCCESS) {
            logFailedTransfer(endpoint, result);
            return statusFromLibusbError(result);
        }
        event_duty::noteSynchronousTransfer();
        if (transferred != nullptr)
            *transferred += static_cast<uint64_t>(actual);
        if (actual != chunk)
            return transferred != nullptr ? VEXA_USB_STATUS_SUCCESS
                                          : VEXA_USB_STATUS_NOT_ALL_DATA_TRANSFERRED;
        data += chunk;
        length -= static_cast<uint64_t>(chunk);
    }
    return VEXA_USB_STATUS_SUCCESS;
}

// At the level of details, since a driver may well ask again and again what times out.
void DeviceLibUSB::logFailedTransfer(uint8_t endpoint, int result) const {
    logLine(LogLevel::Debug, "%s: a transfer on endpoint 0x%02x failed: %s", deviceName_.text(),
            static_cast<unsigned>(endpoint), libusb_error_name(result));
}

int32_t DeviceLibUSB::logRefusedEndpoint(uint8_t endpoint, const char *reason,
                                         int32_t status) const {
    logLine(LogLevel::Error, "%s: endpoint 0x%02x cannot be used: %s", deviceName_.text(),
            static_cast<unsigned>(endpoint), reason);
    return status;
}

int32_t DeviceLibUSB::interruptTransferChunked(uint8_t endpoint, uint8_t *data, uint64_t length,
                                               uint64_t *transferred) {
    return transferChunked(libusb_interrupt_transfer, endpoint, data, length, transferred);
}

int32_t DeviceLibUSB::bulkTransferChunked(uint8_t endpoint, uint8_t *data, uint64_t length,
                                          uint64_t *transferred) {
    return transferChunked(libusb_bulk_transfer, endpoint, data, length, transferred);
}

int32_t DeviceLibUSB::interruptRead(uint8_t endpoint, uint8_t *data, uint64_t length,
                                    uint64_t *transferred) {
    return interruptTransferChunked(endpoint, data, length, transferred);
}

// libusb takes one pointer type for both directions and does not write through it here.
int32_t DeviceLibUSB::interruptWrite(uint8_t endpoint, const uint8_t *data, uint64_t length,
                                     uint64_t *transferred) {
    return interruptTransferChunked(endpoint, const_cast<uint8_t *>(data), length, transferred);
}

int32_t DeviceLibUSB::bulkRead(uint8_t endpoint, uint8_t *data, uint64_t length,
                               uint64_t *transferred) {
    return bulkTransferChunked(endpoint, data, length, transferred);
}

int32_t DeviceLibUSB::bulkWrite(uint8_t endpoint, const uint8_t *data, uint64_t length,
                                uint64_t *transferred) {
    return bulkTransferChunked(endpoint, const_cast<uint8_t *>(data), length, transferred);
}

// Once enabled the pipe counts as active for the rest of the device's life, disabled or not.
int32_t DeviceLibUSB::eventPipeEnable(uint8_t endpoint) {
    const MutexLock lock(eventPipeMutex_);
    if (isEventPipeActive())
        return VEXA_USB_STATUS_EVENT_PIPE_ACTIVE;
    const UseGate::Use use = connection_->use();
    if (!use)
        return VEXA_USB_STATUS_UNKNOWN;
    try {
        eventPipe_ = EventPipe::make(*connection_, endpoint, eventQueue_, deviceName_);
    } catch (const EndpointError &error) {
        return logRefusedEndpoint(endpoint, error.what(), VEXA_USB_STATUS_UNKNOWN);
    } catch (const std::bad_alloc &) {
        return logRefusedEndpoint(endpoint, kNoMemory, VEXA_USB_STATUS_NO_MEMORY);
    }
    eventPipeActive_.store(true); // before the first event, whose callback may disable the pipe
    if (!eventPipe_->arm()) {
        eventPipeActive_.store(false);
        connection_->detach(eventPipe_);
        return VEXA_USB_STATUS_UNKNOWN;
    }
    return VEXA_USB_STATUS_SUCCESS;
}

// The cancelled transfer ends by itself; events queued before are still delivered.
int32_t DeviceLibUSB::eventPipeDisable() {
    const MutexLock lock(eventPipeMutex_);
    if (!isEventPipeActive())
        return VEXA_USB_STATUS_EVENT_PIPE_NOT_ACTIVE;
    eventPipe_->stop();
    return VEXA_USB_STATUS_SUCCESS;
}

int32_t DeviceLibUSB::dataStreamStart(uint8_t endpoint, uint64_t bufferSize, uint64_t bufferCount) {
    const MutexLock lock(streamMutex_);
    if (isDataStreamActive())
        return VEXA_USB_STATUS_STREAM_BUFFER_ACTIVE;
    const UseGate::Use use = connection_->use();
    if (!use)
        return VEXA_USB_STATUS_UNKNOWN;
    try {
        streamStopped_ = DeviceEventQueue::prepare(VEXA_USB_DEVICE_EVENT_DATA_STREAM_STOPPED);
        stream_ = StreamSession::make(*connection_,
                                      {endpoint, bufferSize, bufferCount, wantedStreamMode()},
                                      eventQueue_, deviceName_);
    } catch (const EndpointError &error) {
        return logRefusedEndpoint(endpoint, error.what(), VEXA_USB_STATUS_UNKNOWN);
    } catch (const std::exception &) {
        return logRefusedEndpoint(endpoint, kNoMemory, VEXA_USB_STATUS_NO_MEMORY);
    }
    dataStreamActive_.store(true);
    stream_->begin();
    return VEXA_USB_STATUS_SUCCESS;
}

int32_t DeviceLibUSB::dataStreamStop() {
    const MutexLock lock(streamMutex_);
    if (!isDataStreamActive())
        return VEXA_USB_STATUS_STREAM_BUFFER_NOT_ACTIVE;
    connection_->end(stream_);
    stream_.reset();
    dataStreamActive_.store(false);
    if (!isRemoved())
        eventQueue_->post(streamStopped_);
    return VEXA_USB_STATUS_SUCCESS;
}

int32_t DeviceLibUSB::dataStreamBufferLock(uint8_t *&data, uint64_t &size) {
    const MutexLock lock(streamMutex_);
    if (!isDataStreamActive())
        return VEXA_USB_STATUS_STREAM_BUFFER_NOT_ACTIVE;
    return stream_->lockBuffer(data, size) ? VEXA_USB_STATUS_SUCCESS
                                           : VEXA_USB_STATUS_DATA_STREAM_BUFFER_EMPTY;
}

int32_t DeviceLibUSB::dataStreamBufferUnlock() {
    const MutexLock lock(streamMutex_);
    if (!isDataStreamActive())
        return VEXA_USB_STATUS_STREAM_BUFFER_NOT_ACTIVE;
    return stream_->unlockBuffer() ? VEXA_USB_STATUS_SUCCESS : VEXA_USB_STATUS_UNKNOWN;
}

} // namespace vexausb
