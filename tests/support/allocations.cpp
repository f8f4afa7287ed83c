#include "support/allocations.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

#include <malloc.h>

namespace {

enum class Plan { None, One, All };

std::atomic<Plan> plan{Plan::None};
std::atomic<uint64_t> left{0}; // allocations that succeed before the one that fails
std::atomic<bool> failed{false};
std::atomic<uint64_t> used{0};

bool mustFail() {
    const Plan now = plan.load();
    if (now == Plan::None || allocations::exemptions > 0 ||
        (now == Plan::One && left.fetch_sub(1) != 0))
        return false;
    failed.store(true);
    return true;
}

} // namespace

namespace allocations {

void failOne(uint64_t skip) {
    failed.store(false);
    left.store(skip);
    plan.store(Plan::One);
}

void failAll() {
    failed.store(false);
    plan.store(Plan::All);
}

bool restore() {
    plan.store(Plan::None);
    return failed.load();
}

uint64_t inUse() {
    return used.load();
}

} // namespace allocations

void *operator new(size_t size) {
    void *const memory = mustFail() ? nullptr : std::malloc(size);
    if (memory == nullptr)
        throw std::bad_alloc();
    used.fetch_add(malloc_usable_size(memory), std::memory_order_relaxed);
    return memory;
}
// The fuzzer's own; the sanitizer's would not match the operator below.
void *operator new(size_t size, const std::nothrow_t & /*tag*/) noexcept {
    void *const memory = std::malloc(size);
    used.fetch_add(malloc_usable_size(memory), std::memory_order_relaxed);
    return memory;
}
void operator delete(void *memory) noexcept {
    used.fetch_sub(malloc_usable_size(memory), std::memory_order_relaxed);
    std::free(memory);
}
void operator delete(void *memory, size_t /*size*/) noexcept {
    operator delete(memory);
}
