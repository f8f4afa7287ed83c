#pragma once

#include <chrono>
#include <cstdint>
#include <span>

#include "boot_device.h"

namespace sim {

/*
 * A device in DFU mode (USB Device Firmware Upgrade 1.1): the state machine of appendix A.
 *
 * A request that the state does not allow is refused and leads to dfuERROR.  So does a request
 * during the poll time, which the device asks for after each block and for the manifestation.
 *
 * After the manifestation it resets itself and comes back with the new firmware: some time after
 * the last request for its status, or after the time that DFU_DETACH names.  It does not wait for
 * the host's bus reset, which does not reach it over USB/IP.
 */
class DfuDevice final : public BootDevice {
public:
    DfuDevice(DeviceShape shape, const LoadBehaviour &behaviour);

    void plugged(Port &port) override;

private:
    using Clock = std::chrono::steady_clock;

    // bState
    enum class State : uint8_t {
        Idle = 2,
        DownloadSync = 3,
        DownloadBusy = 4,
        DownloadIdle = 5,
        ManifestSync = 6,
        Manifest = 7,
        ManifestWaitReset = 8,
        UploadIdle = 9,
        Error = 10,
    };
    // bStatus
    enum class Status : uint8_t {
        Ok = 0x00,
        WriteFailed = 0x03,
        AddressOutOfRange = 0x08,
        StalledPacket = 0x0F,
    };

    Answer loadRequest(const Setup &setup, std::span<uint8_t> data) override;
    Answer download(const Setup &setup, std::span<const uint8_t> data);
    Answer upload(const Setup &setup, std::span<uint8_t> room);
    Answer getStatus(std::span<uint8_t> room);
    Answer clearStatus();
    Answer abort();
    Answer detach(const Setup &setup);
    void advance();
    void beginWork(State work);
    // Starts the firmware after that time, unless another time is set or an error occurs before.
    void startAfter(std::chrono::milliseconds delay);
    void fail(Status reason);
    Answer refuse();

    State state_ = State::Idle;
    Status status_ = Status::Ok;
    Bytes image_;            // the blocks that have come
    bool isWritten_ = false; // the last one of them
    uint16_t nextBlock_ = 0;
    size_t uploaded_ = 0;
    Clock::time_point busyUntil_;
    uint64_t startNumber_ = 0; // changes when a start is set or called off
};

} // namespace sim
