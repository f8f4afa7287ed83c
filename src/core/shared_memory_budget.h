#pragma once

#include <cstddef>
#include <cstdint>

/*
 * How much memory the rings of this process may share with the kernel.
 *
 * Shared memory counts against the system's limit for USB transfers (usbfs_limit.h) for as long as
 * it is mapped, and the transfers of every other program need room under that limit, too.  So
 * nothing is shared where the limit is below 64 MiB; all programs that use this library share a
 * quarter of it at most, together; and 2 MiB stay free for each supported device that is attached,
 * about what the transfers of one device take without sharing.  As more devices come, rings give
 * shared memory back.
 *
 * Programs tell each other what they share by locks on the file that holds the limit: a read lock
 * on one byte for each MiB, somewhere in the range of file offsets.  The kernel drops the locks of
 * a process that ends in whatever way.  Containers with a /sys of their own do not see each other.
 *
 * Threads: any.  The state has a mutex of its own, inside which no other is taken.
 */
namespace vexausb::shared_memory_budget {

struct Grant {
    uint64_t blocks;    // so many of those asked for may be shared
    const char *reason; // why not the rest; null when there is none
};

// Asks for `count` blocks of `blockSize` bytes, which is not 0 and in whole pages, as the kernel
// counts them.  Each granted block is given back by release().
Grant reserve(uint64_t blockSize, uint64_t count);
void release(uint64_t blockSize, uint64_t count);

// The number of supported devices on the bus; the device list tells each change.
void setAttachedDevices(size_t count);
// Whether more is shared than the attached devices leave room for.
bool isOverdrawn();

} // namespace vexausb::shared_memory_budget
