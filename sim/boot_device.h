#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>

#include "device_model.h"

namespace sim {

// The faults of a device while it is loaded, and its times.  Each fault names the request, or
// status, in which it happens; the first is 1.
struct LoadBehaviour {
    std::optional<uint32_t> fail;       // refuses the request
    std::optional<uint32_t> shorten;    // answers with one byte less
    std::optional<uint32_t> unplug;     // leaves the bus without an answer, and comes back
    std::optional<uint32_t> badStatus;  // reports an error in the status
    std::chrono::milliseconds delay{0}; // before each answer to a request
    std::chrono::milliseconds poll{0};  // the poll time that each status asks for
    // Between the manifestation and the reset.  dfu-util asks for the status a second later.
    std::chrono::milliseconds linger{2000};
};

/*
 * A processor that waits for its firmware: what the kinds of them have in common.  It has the
 * faults that it was told to have, and becomes an instrument once its firmware runs.  Each fault
 * happens once, so a second load succeeds.
 */
class BootDevice : public DeviceModel {
public:
    BootDevice(DeviceShape shape, const LoadBehaviour &behaviour);

    void plugged(Port &port) override;

protected:
    // Answers a request that is not a standard one and has no fault.
    virtual Answer loadRequest(const Setup &setup, std::span<uint8_t> data) = 0;

    Answer sendData(uint8_t endpoint, std::span<uint8_t> room) override;
    Answer takeData(uint8_t endpoint, std::span<const uint8_t> data) override;

    // To be called once for each status: whether it is to report an error.
    bool statusIsBad();
    // Leaves the bus and comes back as an instrument with this firmware, or as the next stage.
    void start(Bytes firmware);
    void startAs(std::unique_ptr<DeviceModel> stage);
    // Runs `action` after that time, unless the device has left the bus by then.
    void later(std::chrono::milliseconds delay, std::function<void()> action);
    // The times, and the faults that have not happened yet.
    const LoadBehaviour &behaviour() const { return behaviour_; }

private:
    Answer request(const Setup &setup, std::span<uint8_t> data) final;
    // Whether the fault is due in this request; if so it is removed.
    bool takeFault(std::optional<uint32_t> &fault);

    using Clock = std::chrono::steady_clock;

    LoadBehaviour behaviour_;
    Clock::time_point firstRequest_;
    uint64_t timesPlugged_ = 0;
    uint32_t requests_ = 0; // since it was plugged in
    uint32_t statuses_ = 0;
};

} // namespace sim
