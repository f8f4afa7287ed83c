#pragma once

#include <cstdint>
#include <memory>

#include "core/device_name.h"

struct libusb_device_handle;

namespace vexausb {

class UsbConnection;

/*
 * Memory for the buffers of one ring that the kernel fills itself (libusb_dev_mem_alloc), where
 * that is safe and fast; what arrives there is not copied once more.
 *
 * It belongs to the device's open file, which therefore stays open for as long as any of it is
 * mapped.  So it is given back through the handle before that is closed; only what the caller is
 * still reading at that moment stays, and is unmapped without the handle later.
 *
 * Life: owned by its ring, which gives every buffer back before it ends.
 *
 * Threads: whichever produces into the ring; its session's mutex lets one at a time come here.
 */
class SharedBuffers {
public:
    // For `count` buffers of `size` bytes, or null where none may be shared.  The caller holds a
    // Use of the connection.
    static std::unique_ptr<SharedBuffers> make(const UsbConnection &connection, uint64_t size,
                                               uint64_t count, const DeviceName &name);
    ~SharedBuffers();
    SharedBuffers(const SharedBuffers &) = delete;
    SharedBuffers &operator=(const SharedBuffers &) = delete;

    // One buffer's memory, zeroed by the kernel; null when no more may be shared or the kernel
    // refuses.
    uint8_t *allocate();
    void release(uint8_t *memory);
    // Whether other devices need the room.
    static bool isOverdrawn();
    // What is still out is released without the handle from here on.
    void handleCloses() { handle_ = nullptr; }

private:
    SharedBuffers(libusb_device_handle *handle, uint64_t size, uint64_t granted,
                  const DeviceName &name);

    libusb_device_handle *handle_; // null once it closes
    const uint64_t size_;
    uint64_t left_; // buffers that may still be asked for
    const DeviceName deviceName_;
    bool refused_ = false;
};

} // namespace vexausb
