#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>

#include "device_model.h"
#include "lies.h"

namespace sim {

// After how many requests and transfers a device leaves the bus, standard requests not counted, and
// how many more they are each time that it has come back.
struct Leaving {
    uint32_t after;
    uint32_t more;
};

/*
 * A device that is another one, with one lie, or leaves the bus in the middle of its use.  All that
 * it does not lie about it leaves to the other device, which works as it does by itself.
 */
class HostileDevice final : public DeviceModel {
public:
    // `lie` may be null.
    HostileDevice(std::unique_ptr<DeviceModel> other, const Lie *lie,
                  std::optional<Leaving> leaving);

    void plugged(Port &port) override;
    void withdrawn(uint8_t endpoint) override;

private:
    Answer standardRequest(const Setup &setup, std::span<uint8_t> data) override;
    Answer request(const Setup &setup, std::span<uint8_t> data) override;
    Answer sendData(uint8_t endpoint, std::span<uint8_t> room) override;
    Answer takeData(uint8_t endpoint, std::span<const uint8_t> data) override;
    std::optional<Answer> answerFalsely(const Question &question, std::span<uint8_t> room) const;
    // Leaves the bus if this answer is the last one.
    Answer counted(Answer answer);

    const std::unique_ptr<DeviceModel> other_;
    const Lie *const lie_;
    std::optional<Leaving> leaving_;
    uint32_t answered_ = 0; // since it was plugged in
};

} // namespace sim
