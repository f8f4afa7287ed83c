#pragma once

#include <cstdint>

// This program's operator new, which fails on demand: for the library alone, as neither libusb's
// stand-in nor the test's own callbacks are counted.
namespace allocations {

// The call after `skip` more fails, once; or each one does, until restore().
void failOne(uint64_t skip);
void failAll();
// Whether any has failed since.
bool restore();

// The bytes that are allocated at the moment, by whomever.
uint64_t inUse();

// While it is above 0, nothing is counted nor fails on this thread.
[[gnu::visibility("default")]] inline thread_local int exemptions = 0;
class Exempt {
public:
    Exempt() { ++exemptions; }
    ~Exempt() { --exemptions; }
    Exempt(const Exempt &) = delete;
    Exempt &operator=(const Exempt &) = delete;
};

} // namespace allocations
