#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "core/device_name.h"

struct libusb_device_handle;

namespace vexausb {

class UsbConnection;

/*
 * Blocks of memory, each for a buffer of one ring, that the kernel fills itself
 * (libusb_dev_mem_alloc), where that is safe and fast; what arrives there is not copied once more.
 *
 * They belong to the device's open file, which therefore stays open for as long as any of them is
 * mapped.  So they are given back through the handle before that is closed; only what the caller is
 * still reading then stays, and is unmapped without the handle later.
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

    // The block that was given back last, or a new one, zeroed by the kernel; null when no more may
    // be shared or the kernel refuses, which is not asked again before one round of the ring.
    uint8_t *take();
    // Kept for the next take(), which unmaps it where other devices need the room.  Whoever wants
    // no more calls one of the next two after that, or destroys this.
    void giveBack(uint8_t *block);
    // What was given back is unmapped, and the ring asks for no more.
    void releaseUnused();
    // What was given back is unmapped; the ring must take nothing from here on.  What is still out
    // is unmapped without the handle, at the latest when this is destroyed.
    void handleIsClosing();

private:
    SharedBuffers(libusb_device_handle *handle, uint64_t size, uint64_t count,
                  const DeviceName &name);
    uint8_t *allocate();
    void release(uint8_t *block);
    void reserveMore();

    libusb_device_handle *handle_; // null once it closes
    const uint64_t size_;
    const uint64_t count_;         // of the ring's buffers that may have a block
    uint64_t wanted_;              // blocks of these that are not reserved
    uint64_t reservedBlocks_ = 0;  // reserved, and not allocated
    uint64_t pause_ = 0;           // so many takes come before the kernel is asked again
    std::vector<uint8_t *> spare_; // given back; has room for all
    const DeviceName deviceName_;
    bool refused_ = false;
};

} // namespace vexausb
