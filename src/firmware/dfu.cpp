#include "firmware/dfu.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <thread>
#include <utility>

#include "firmware/formats/byte_order.h"
#include "firmware/requests.h"

namespace vexausb {

namespace {

constexpr uint64_t kMaxBlock = 4096;
constexpr uint8_t kDownload = 1;  // DFU_DNLOAD
constexpr uint8_t kGetStatus = 3; // DFU_GETSTATUS
constexpr uint8_t kStatusOk = 0;
constexpr std::chrono::milliseconds kLookInterval{100};

enum class State : uint8_t {
    DownloadIdle = 5, // dfuDNLOAD-IDLE
    Error = 10,       // dfuERROR
};

// Answer to DFU_GETSTATUS.
struct DfuStatus {
    std::array<uint8_t, 6> bytes{};

    bool isOk() const { return bytes[0] == kStatusOk; }
    std::chrono::milliseconds pollTimeout() const {
        return std::chrono::milliseconds(littleEndian32(&bytes[1]) & 0xFFFFFFU); // three bytes
    }
    bool isSettled() const {
        const auto state = static_cast<State>(bytes[4]);
        return state == State::DownloadIdle || state == State::Error;
    }
};

int32_t sendBlock(AbstractDevice &device, uint16_t number, const uint8_t *data, uint64_t length) {
    return classWrite(device, kDownload, number, data, length);
}

int32_t readStatus(AbstractDevice &device, DfuStatus &status) {
    status = {};
    return classRead(device, kGetStatus, status.bytes.data(), status.bytes.size());
}

// A device may ask for more than four hours.  What ends the wait is that it has left or that the
// library closes; a signal does not.
void waitOnBus(const AbstractDevice &device, std::chrono::milliseconds time) {
    for (; time.count() > 0 && !device.isRemoved() && device.isConnected(); time -= kLookInterval)
        std::this_thread::sleep_for(std::min(time, kLookInterval));
}

// Returns once the device has accepted or refused the block.
int32_t poll(AbstractDevice &device, DfuStatus &status) {
    for (;;) {
        const int32_t result = readStatus(device, status);
        if (result != VEXA_USB_STATUS_SUCCESS || status.isSettled())
            return result;
        waitOnBus(device, status.pollTimeout());
    }
}

int32_t writeBlock(AbstractDevice &device, uint16_t number, const uint8_t *data, uint64_t length) {
    if (sendBlock(device, number, data, length) != VEXA_USB_STATUS_SUCCESS)
        return VEXA_USB_STATUS_UNKNOWN;
    DfuStatus status;
    const int32_t result = poll(device, status);
    if (result != VEXA_USB_STATUS_SUCCESS)
        return result;
    return status.isOk() ? VEXA_USB_STATUS_SUCCESS : VEXA_USB_STATUS_UNKNOWN;
}

// Takes `progress` by value, so that it is destroyed before the last requests are sent.
int32_t writeImage(AbstractDevice &device, const uint8_t *data, uint64_t size, DfuProgress progress,
                   uint16_t &number) {
    for (uint64_t sent = 0; sent < size; ++number) {
        const uint64_t length = std::min(kMaxBlock, size - sent);
        const int32_t status = writeBlock(device, number, data + sent, length);
        if (status != VEXA_USB_STATUS_SUCCESS)
            return status;
        sent += length;
        if (progress)
            progress(static_cast<double>(sent) / static_cast<double>(size));
    }
    return VEXA_USB_STATUS_SUCCESS;
}

} // namespace

// An empty block ends the image: the device then begins to program it.
int32_t dfuDownload(AbstractDevice &device, const uint8_t *data, uint64_t size,
                    DfuProgress progress) {
    uint16_t number = 0; // the protocol's block number: 0 follows 65535
    int32_t status = writeImage(device, data, size, std::move(progress), number);
    if (status == VEXA_USB_STATUS_SUCCESS)
        status = sendBlock(device, number, nullptr, 0);
    if (status != VEXA_USB_STATUS_SUCCESS)
        return status;
    DfuStatus last;
    return readStatus(device, last);
}

} // namespace vexausb
