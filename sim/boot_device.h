#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>

#include "device_model.h"

namespace sim {

// What a device does wrong while it is loaded, each once; steps count its requests from 1.
struct LoadBehaviour {
    std::optional<uint32_t> fail;       // refuses this request
    std::optional<uint32_t> shorten;    // takes or gives a byte less
    std::optional<uint32_t> unplug;     // leaves instead of an answer, and comes back
    std::optional<uint32_t> badStatus;  // reports an error in the status of that number
    std::chrono::milliseconds delay{0}; // before each answer to a request
    std::chrono::milliseconds poll{0};  // that it asks for with each status
    // Between its manifestation and its reset: dfu-util asks for the status a second later.
    std::chrono::milliseconds linger{2000};
};

// A processor that waits for its firmware.
class BootDevice : public DeviceModel {
public:
    BootDevice(DeviceShape shape, const LoadBehaviour &behaviour);

    void plugged(Port &port) override;

protected:
    // A request other than a standard one, once the faults are past.
    virtual Answer loadRequest(const Setup &setup, std::span<uint8_t> data) = 0;

    Answer sendData(uint8_t endpoint, std::span<uint8_t> room) override;
    Answer takeData(uint8_t endpoint, std::span<const uint8_t> data) override;

    // Whether the status that is about to be sent is to be a bad one.
    bool statusIsBad();
    // Leaves the bus and comes back as the instrument with this firmware, or as another stage.
    void start(Bytes firmware);
    void startAs(std::unique_ptr<DeviceModel> stage);
    // Runs `action` after a while, unless the device has been plugged in anew by then.
    void later(std::chrono::milliseconds delay, std::function<void()> action);
    // The times, and the faults that have not happened yet; for a next stage, too.
    const LoadBehaviour &behaviour() const { return faults_; }

private:
    Answer request(const Setup &setup, std::span<uint8_t> data) final;
    bool isStep(std::optional<uint32_t> &step);

    using Clock = std::chrono::steady_clock;

    LoadBehaviour faults_;
    Clock::time_point firstRequest_;
    uint64_t life_ = 0; // how often it was plugged in
    uint32_t requests_ = 0;
    uint32_t statuses_ = 0;
};

} // namespace sim
