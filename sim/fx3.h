#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "boot_device.h"

namespace sim {

/*
 * The boot loader of a Cypress EZ-USB FX3.
 *
 * Request 0xA0 reads or writes within one of the chip's memories; without a data stage it jumps.  A
 * jump into a memory to which nothing was written is refused, where the real chip would hang.  The
 * firmware of the instrument that starts is the system memory up to the last byte that is not 0.
 */
class Fx3 final : public BootDevice {
public:
    using BootDevice::BootDevice;

    void plugged(Port &port) override;

private:
    struct Memory {
        uint32_t base;
        Bytes bytes;
        bool written = false;
    };

    Answer loadRequest(const Setup &setup, std::span<uint8_t> data) override;
    Answer jump(uint32_t address);
    Memory *find(uint32_t address, size_t length);

    std::vector<Memory> memories_;
};

} // namespace sim
