#pragma once

#include <cstddef>
#include <cstdint>

namespace vexausb {

/*
 * The ordinary memory of a ring's buffers, in one mapping of its own: what the C library allocates
 * it keeps after the end of a stream, up to tens of megabytes for each thread that ever started
 * one.  Pages that nobody touches take no memory.
 *
 * The ring owns it; the bytes of a buffer belong to whoever the ring gave them to.
 */
class RingMemory {
public:
    // A buffer is at most as large as a pointer difference can tell.  Throws std::length_error when
    // all are more than there are addresses, std::bad_alloc when they are more than the system
    // gives.
    RingMemory(uint64_t bufferSize, uint64_t bufferCount);
    ~RingMemory();
    RingMemory(const RingMemory &) = delete;
    RingMemory &operator=(const RingMemory &) = delete;

    uint8_t *buffer(uint64_t index) const { return memory_ + index * distance_; }

private:
    const uint64_t distance_; // from one buffer to the next
    const size_t size_;
    uint8_t *const memory_;
};

} // namespace vexausb
