#include "device/ring_memory.h"

#include <new>
#include <stdexcept>

#include <sanitizer/asan_interface.h>
#include <sys/mman.h>

namespace vexausb {

namespace {

constexpr uint64_t kCacheLine = 64;

// Buffers share no cache line, and behind each is at least a byte that the address sanitizer
// watches.
uint64_t distanceFor(uint64_t bufferSize) {
    return bufferSize / kCacheLine * kCacheLine + kCacheLine;
}

size_t product(uint64_t distance, uint64_t count) {
    size_t size = 0;
    if (__builtin_mul_overflow(distance, count, &size))
        throw std::length_error("stream ring too large");
    return size;
}

uint8_t *map(size_t size) {
    void *const memory =
        mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        throw std::bad_alloc();
    return static_cast<uint8_t *>(memory);
}

} // namespace

RingMemory::RingMemory(uint64_t bufferSize, uint64_t bufferCount)
    : distance_(distanceFor(bufferSize)),
      size_(product(distance_, bufferCount)),
      memory_(map(size_)) {
    for (uint64_t i = 0; i < bufferCount; ++i)
        ASAN_POISON_MEMORY_REGION(buffer(i) + bufferSize, distance_ - bufferSize);
}

RingMemory::~RingMemory() {
    ASAN_UNPOISON_MEMORY_REGION(memory_, size_);
    munmap(memory_, size_);
}

} // namespace vexausb
