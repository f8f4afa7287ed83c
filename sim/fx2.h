#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "boot_device.h"
#include "mcs51.h"

namespace sim {

/*
 * A bare Cypress EZ-USB FX2 that executes the program that is loaded into it.
 *
 * It has memory, a processor that is held in reset until it is released through CPUCS, and a
 * default device that answers standard requests until the program takes over.  The chip itself
 * handles request 0xA0, which reads and writes the memory on the chip; it writes only while the
 * processor is held.  The program handles all other requests: it finds the set-up packet and
 * endpoint 0 in the registers.
 *
 * A program that disconnects and connects again comes back as the instrument.
 *
 * The processor runs in slices of a few thousand instructions: always until the program has taken
 * over (again after each reset), while the program is disconnected or handles a request, and for a
 * second after its start and after each request.
 */
class Fx2 final : public BootDevice, private Mcs51::Bus {
public:
    Fx2(DeviceShape shape, const LoadBehaviour &behaviour);

    void plugged(Port &port) override;
    void withdrawn(uint8_t endpoint) override;

private:
    Answer loadRequest(const Setup &setup, std::span<uint8_t> data) override;
    Answer standardRequest(const Setup &setup, std::span<uint8_t> data) override;

    uint8_t read(uint16_t address) override;
    void write(uint16_t address, uint8_t value) override;

    using Clock = std::chrono::steady_clock;

    Answer memoryRequest(const Setup &setup, std::span<uint8_t> data);
    void setCpu(bool released);
    Answer programRequest(const Setup &packet, std::span<uint8_t> data);
    void writeSetup(const Setup &packet);
    void writeUsbControl(uint8_t value);
    void armEndpoint(uint8_t count);
    void run(int instructions);
    void extendRunTime();
    bool hasRunTime() const;
    void scheduleSlice();

    // The control request that the program handles.  It is kept until the host has got the answer.
    struct PendingRequest {
        bool in;
        Bytes data;
        size_t moved; // bytes of `data` that endpoint 0 has taken or filled
        std::optional<Answer> answer;
    };

    std::vector<uint8_t> memory_;
    Mcs51 processor_;
    bool running_ = false;
    bool takenOver_ = false; // requests go to the program; a reset does not change it
    bool takenOverSinceReset_ = false;
    bool disconnected_ = false;
    bool sliceScheduled_ = false;
    Clock::time_point runUntil_;
    std::optional<PendingRequest> pendingRequest_;
};

} // namespace sim
