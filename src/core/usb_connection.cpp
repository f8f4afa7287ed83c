#include "core/usb_connection.h"

#include <utility>

#include <libusb.h>

#include "core/connection_registry.h"
#include "core/transfer_set.h"

namespace vexausb {

/*
 * One open libusb handle with interface 0 claimed, and everything that is in flight on it.
 *
 * Life: made by ConnectionRegistry::connect, closed by whichever comes first of its device's
 * destruction, the last fini, and the end of transfers that nobody delivers completions for.
 * The object outlives its handle: a closed connection lets nobody in any more.  Closing needs no
 * memory.
 *
 * Threads: any.  close() first turns synchronous users away and waits for those inside (they look
 * at every piece whether somebody waits, so that takes one transfer's time limit at most), then
 * ends the asynchronous transfers.  libusb_close takes a lock that libusb holds while it runs
 * transfer callbacks, so none of the mutexes that those take is held there.
 */
UsbConnection::UsbConnection(libusb_device_handle *openHandle, bool eventLoopRuns)
    : deviceHandle(openHandle), loopRuns(eventLoopRuns) {}

void UsbConnection::attach(std::shared_ptr<TransferSet> transfers) {
    const std::lock_guard lock(mutex);
    transferSets.push_back(std::move(transfers));
}

void UsbConnection::detach(const std::shared_ptr<TransferSet> &transfers) {
    const std::lock_guard lock(mutex);
    std::erase(transferSets, transfers);
}

// Without an event loop no completion will come; libusb forgets a handle's transfers when the
// handle is closed, so then closing is the only way to end them.
void UsbConnection::end(const std::shared_ptr<TransferSet> &transfers) {
    transfers->stop();
    if (loopRuns)
        transfers->waitIdle();
    else
        close();
    detach(transfers);
}

void UsbConnection::prepareClose() {
    gate.refuse();
    const std::lock_guard lock(mutex);
    for (const auto &set : transferSets)
        set->stop();
}

void UsbConnection::close() {
    const std::lock_guard closer(closing);
    if (closed)
        return;
    gate.close();
    const auto transfers = takeTransfers();
    for (const auto &set : transfers)
        set->stop();
    if (loopRuns) {
        for (const auto &set : transfers)
            set->waitIdle();
    }
    libusb_release_interface(deviceHandle, 0);
    libusb_close(deviceHandle);
    for (const auto &set : transfers)
        set->abandon();
    closed = true;
    ConnectionRegistry::remove(this);
}

std::vector<std::shared_ptr<TransferSet>> UsbConnection::takeTransfers() {
    const std::lock_guard lock(mutex);
    return std::exchange(transferSets, {});
}

} // namespace vexausb
