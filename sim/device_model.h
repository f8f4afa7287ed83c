#pragma once

#include <cerrno>
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
        Done,   // `length` bytes were sent or taken; it may be fewer than the host asked for
        Wait,   // not yet: the host's request stays pending
        Stall,  // refused
        Failed, // the host's controller reports this status, with so many bytes moved
    };

    static Answer done(size_t length) { return {Kind::Done, length}; }
    static Answer wait() { return {Kind::Wait, 0}; }
    static Answer stall() { return {Kind::Stall, 0, -EPIPE}; }
    static Answer failed(int32_t status, size_t length) { return {Kind::Failed, length, status}; }

    Kind kind;
    size_t length;
    int32_t status = 0; // as the kernel numbers them
};

// Answers an IN request with as many of `bytes` as there is room for.
Answer sendBytes(std::span<const uint8_t> bytes, std::span<uint8_t> room);

class DeviceModel;

// What a device can ask of the port that it is plugged into.
class Port {
public:
    virtual ~Port() = default;

    // Offers pending requests to the device again after that time.  Never from within this call,
    // even if the time is 0.
    virtual void wake(std::chrono::milliseconds delay) = 0;
    // Runs `action` after that time, even if the device has left the bus by then.
    virtual void after(std::chrono::milliseconds delay, std::function<void()> action) = 0;
    // Takes the device off the bus once its current answer was sent.  If `returnAfter` is given,
    // the device comes back after that time.
    virtual void unplug(std::optional<std::chrono::milliseconds> returnAfter) = 0;
    // The same, but another device comes back.
    virtual void become(std::unique_ptr<DeviceModel> other,
                        std::chrono::milliseconds returnAfter) = 0;
    // Whether the device is still on the bus.
    virtual bool isPlugged() const = 0;
};

/*
 * A simulated USB device.  This class answers the standard requests and has the faults that it is
 * told to have; the derived class does the rest.
 *
 * Every function answers at once.  A request that the device lets wait is offered to it again after
 * each wake of its port.
 */
class DeviceModel {
public:
    explicit DeviceModel(DeviceShape shape) : shape_(std::move(shape)) {}
    virtual ~DeviceModel() = default;
    DeviceModel(const DeviceModel &) = delete;
    DeviceModel &operator=(const DeviceModel &) = delete;

    const DeviceShape &shape() const { return shape_; }

    // The device is plugged into this port, which it uses from now on, and begins in its first
    // state.
    virtual void plugged(Port &port);

    // The host's requests.  `data` is the data stage of an OUT request, or the room for that of an
    // IN request.
    Answer control(const Setup &setup, std::span<uint8_t> data);
    Answer in(uint8_t endpoint, std::span<uint8_t> room);
    Answer out(uint8_t endpoint, std::span<const uint8_t> data);
    // The host has cancelled a pending request on this endpoint.
    virtual void withdrawn(uint8_t endpoint);

protected:
    // Answer what is not common to all devices: control requests that are not standard ones, IN and
    // OUT endpoints.
    virtual Answer request(const Setup &setup, std::span<uint8_t> data) = 0;
    virtual Answer sendData(uint8_t endpoint, std::span<uint8_t> room) = 0;
    virtual Answer takeData(uint8_t endpoint, std::span<const uint8_t> data) = 0;
    // Overridden by a device whose own program answers standard requests.
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
        std::optional<Clock::time_point> dueAt; // when the delayed request is to be answered
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
