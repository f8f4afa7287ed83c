#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <span>

#include "boot_device.h"

namespace sim {

/*
 * An NXP i.MX7 in serial-download mode: its boot ROM, or the loader that the ROM has started.
 *
 * It has the Serial Download Protocol over HID reports.  Each command is answered with report 3,
 * the security mode, and report 4, a status.  The ROM can write to the on-chip memory, and enters a
 * file with an image vector table that names its own address.  The loader has set up the memory
 * controller, so it can write to the external memory, too; it enters a file with a boot-image
 * header.  Everything else gets an error status.
 *
 * According to the chip's manual there is a status after a jump only if the jump failed.  Some
 * hosts wait for a status nevertheless; others treat any as a failure.  The latter name the type of
 * their file, as older chips require.  So after a successful jump a status follows only if the file
 * was written without a type.
 */
class Imx7 final : public BootDevice {
public:
    enum class Stage : uint8_t { Rom, Loader };

    Imx7(DeviceShape shape, const LoadBehaviour &behaviour, Stage stage = Stage::Rom,
         Bytes earlierStages = {});

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
    // Queues the report of the security mode and, if there is one, that of the status.
    void answer(std::optional<uint32_t> status);

    const Stage stage_;
    const Bytes earlierStages_; // the files of the stages before this one
    uint32_t fileAddress_ = 0;
    bool fileHasType_ = false;
    Bytes file_;
    uint32_t bytesLeft_ = 0;
    bool written_ = false;      // the whole file, without error
    std::deque<Bytes> reports_; // that the host has not read yet
};

} // namespace sim
