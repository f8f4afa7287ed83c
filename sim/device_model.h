#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <utility>

#include "descriptors.h"
#include "usb.h"

namespace sim {

// What a device answers to one request of the host.
struct Answer {
    enum class Kind : uint8_t {
        Done,  // `length` bytes were sent or taken; fewer than asked for is a short answer
        Wait,  // nothing yet; the host's request stays pending
        Stall, // refused
    };

    static Answer done(size_t length) { return {Kind::Done, length}; }
    static Answer wait() { return {Kind::Wait, 0}; }
    static Answer stall() { return {Kind::Stall, 0}; }

    Kind kind;
    size_t length;
};

// What fits of `bytes` as the answer to an IN request.
Answer sendBytes(std::span<const uint8_t> bytes, std::span<uint8_t> room);

class DeviceModel;

// What a device can ask of the port that it is plugged into.
class Port {
public:
    virtual ~Port() = default;

    // Pending requests are to be offered to the device again, at once or after a while.
    virtual void wake(std::chrono::milliseconds delay) = 0;
    // Runs `action` after a while, wherever the device is then.
    virtual void after(std::chrono::milliseconds delay, std::function<void()> action) = 0;
    // Leaves the bus after the answer in hand; comes back after `returnAfter` if that is given.
    virtual void unplug(std::optional<std::chrono::milliseconds> returnAfter) = 0;
    // Leaves, too; what comes back is another device.
    virtual void become(std::unique_ptr<DeviceModel> other,
                        std::chrono::milliseconds returnAfter) = 0;
};

class DeviceModel {
public:
    explicit DeviceModel(DeviceShape shape) : shape_(std::move(shape)) {}
    virtual ~DeviceModel() = default;
    DeviceModel(const DeviceModel &) = delete;
    DeviceModel &operator=(const DeviceModel &) = delete;

    const DeviceShape &shape() const { return shape_; }

    // The device begins anew on this port, which outlives its stay there.
    virtual void plugged(Port &port);

    // The host's side.  `data` is the data stage of an OUT request, or room for that of an IN one.
    Answer control(const Setup &setup, std::span<uint8_t> data);
    Answer in(uint8_t endpoint, std::span<uint8_t> room);
    Answer out(uint8_t endpoint, std::span<const uint8_t> data);
    // The host has withdrawn a request on this endpoint that was pending.
    virtual void withdrawn(uint8_t endpoint);

protected:
    // What makes a device of its kind.  Requests other than standard ones come here.
    virtual Answer request(const Setup &setup, std::span<uint8_t> data) = 0;
    virtual Answer sendData(uint8_t endpoint, std::span<uint8_t> room) = 0;
    virtual Answer takeData(uint8_t endpoint, std::span<const uint8_t> data) = 0;
    // Standard requests; a device that answers them by a program of its own has another.
    virtual Answer standardRequest(const Setup &setup, std::span<uint8_t> data);

    // Faults, by endpoint address; 0 is the control endpoint.
    void setHalted(uint8_t endpoint, bool halted);
    void setSilent(uint8_t endpoint, bool silent);
    void setDelay(uint8_t endpoint, std::chrono::milliseconds delay);
    void setShortAnswer(uint8_t endpoint, size_t length);

    Port &port() { return *port_; }
    void setProduct(uint16_t product) { shape_.product = product; }

private:
    using Clock = std::chrono::steady_clock;

    struct Fault {
        bool halted = false;
        bool silent = false;
        std::chrono::milliseconds delay{0};
        std::optional<Clock::time_point> dueAt; // of the request that is being delayed
        std::optional<size_t> shortAnswer;
    };

    std::optional<Answer> faultBeforeAnswer(uint8_t endpoint);
    bool isHalted(const Setup &setup) const;
    Answer endpointFeature(const Setup &setup);
    Answer descriptor(const Setup &setup, std::span<uint8_t> room) const;

    DeviceShape shape_;
    Port *port_ = nullptr;
    uint8_t configuration_ = 0;
    std::map<uint8_t, Fault> faults_;
};

} // namespace sim
