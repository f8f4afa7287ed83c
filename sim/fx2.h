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

// A bare Cypress EZ-USB FX2 that executes what is loaded into it.
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
    void setup(const Setup &packet);
    void writeUsbControl(uint8_t value);
    void armEndpoint(uint8_t count);
    void run(int instructions);
    void stayAwake();
    bool isAwake() const;
    void goOnLater();

    // The control request that the program works on; once answered, kept until the host has the
    // answer.
    struct PendingRequest {
        bool in;
        Bytes data;
        size_t moved;
        std::optional<Answer> answer;
    };

    std::vector<uint8_t> memory_;
    Mcs51 processor_;
    bool running_ = false;
    bool takenOver_ = false; // requests go to the program
    bool settled_ = false;   // it was the running program that has taken over
    bool disconnected_ = false;
    bool continues_ = false; // in a moment
    Clock::time_point awakeUntil_;
    std::optional<PendingRequest> pendingRequest_;
};

} // namespace sim
