#include "core/usb_connection.h"

#include <utility>

#include <libusb.h>

#include "core/transfer_set.h"

namespace vexausb {

UsbConnection::UsbConnection(libusb_device_handle *handle, bool eventLoopRuns)
    : handle_(handle), loopRuns_(eventLoopRuns) {}

int UsbConnection::maxPacketSize(uint8_t endpoint) const {
    return libusb_get_max_packet_size(libusb_get_device(handle_), endpoint);
}

void UsbConnection::attach(std::shared_ptr<TransferSet> transfers) {
    const MutexLock lock(mutex_);
    transferSets_.push_back(std::move(transfers));
}

void UsbConnection::detach(const std::shared_ptr<TransferSet> &transfers) {
    const MutexLock lock(mutex_);
    std::erase(transferSets_, transfers);
}

// Without an event loop no completion will come; libusb forgets a handle's transfers when the
// handle is closed, so then closing is the only way to end them.
void UsbConnection::end(const std::shared_ptr<TransferSet> &transfers) {
    transfers->stop();
    if (loopRuns_)
        transfers->waitIdle();
    else
        close();
    // Before detach(): a close() that did not find the set any more would close the handle first.
    transfers->releaseMemory(CallerMemory::Ends);
    detach(transfers);
}

void UsbConnection::releaseUnused() {
    const MutexLock lock(mutex_);
    for (const auto &set : transferSets_)
        set->releaseUnused();
}

void UsbConnection::prepareClose() {
    gate_.refuse();
    const MutexLock lock(mutex_);
    for (const auto &set : transferSets_)
        set->stop();
}

void UsbConnection::close() {
    const MutexLock closer(closing_);
    if (closed_)
        return;
    gate_.close();
    const auto transfers = takeTransfers();
    for (const auto &set : transfers)
        set->stop();
    if (loopRuns_) {
        for (const auto &set : transfers)
            set->waitIdle();
    }
    for (const auto &set : transfers)
        set->releaseMemory(CallerMemory::Stays);
    libusb_release_interface(handle_, 0);
    libusb_close(handle_);
    for (const auto &set : transfers)
        set->abandon();
    closed_ = true;
}

std::vector<std::shared_ptr<TransferSet>> UsbConnection::takeTransfers() {
    const MutexLock lock(mutex_);
    return std::exchange(transferSets_, {});
}

} // namespace vexausb
