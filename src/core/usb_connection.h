#pragma once

#include <memory>
#include <mutex>
#include <vector>

#include "core/use_gate.h"

struct libusb_device_handle;

namespace vexausb {

class TransferSet;

class UsbConnection {
public:
    UsbConnection(libusb_device_handle *openHandle, bool eventLoopRuns);
    UsbConnection(const UsbConnection &) = delete;
    UsbConnection &operator=(const UsbConnection &) = delete;

    // The handle may be used as long as the result is held; false once the connection closes.
    UseGate::Use use() { return gate.enter(); }
    libusb_device_handle *handle() const { return deviceHandle; }

    // While a Use is held: has close() end these transfers too.
    void attach(std::shared_ptr<TransferSet> transfers);
    void detach(const std::shared_ptr<TransferSet> &transfers);
    // Ends these transfers and forgets them; no memory of theirs is written to afterwards.
    void end(const std::shared_ptr<TransferSet> &transfers);

    // Begins what close() completes, without waiting for anything.
    void prepareClose();
    void close();

private:
    std::vector<std::shared_ptr<TransferSet>> takeTransfers();

    libusb_device_handle *const deviceHandle;
    const bool loopRuns; // whether completions get delivered for as long as this is open
    UseGate gate{true};

    std::mutex closing;  // held by the thread that closes; no libusb callback takes it
    bool closed = false; // guarded by closing

    std::mutex mutex; // guards transferSets; a set's own is taken inside it
    std::vector<std::shared_ptr<TransferSet>> transferSets;
};

} // namespace vexausb
