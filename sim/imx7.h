#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <span>

#include "boot_device.h"

namespace sim {

// An NXP i.MX7 in serial-download mode: its boot ROM, or the loader that the ROM has started.
class Imx7 final : public BootDevice {
public:
    enum class Stage : uint8_t { Rom, Loader };

    Imx7(DeviceShape shape, const LoadBehaviour &behaviour, Stage stage = Stage::Rom,
         Bytes earlier = {});

    void plugged(Port &port) override;

private:
    Answer loadRequest(const Setup &setup, std::span<uint8_t> report) override;
    Answer sendData(uint8_t endpoint, std::span<uint8_t> room) override;

    Answer command(std::span<const uint8_t> report);
    Answer data(std::span<const uint8_t> report);
    void writeEnded();
    void jump(uint32_t address);
    void startNext();
    bool isWritable(uint32_t address, uint32_t count) const;
    bool hasEntry(uint32_t address) const;
    // With the security mode, and a status.
    void answer(std::optional<uint32_t> status);

    const Stage stage_;
    const Bytes earlier_; // what the stages before were
    uint32_t fileAddress_ = 0;
    bool fileHasType_ = false;
    Bytes file_;
    uint32_t bytesLeft_ = 0;
    bool written_ = false;      // all of the file, in order
    std::deque<Bytes> reports_; // to be sent
};

} // namespace sim
