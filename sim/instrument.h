#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <span>
#include <string>

#include "device_model.h"
#include "instrument_protocol.h"
#include "recording.h"

namespace sim {

/*
 * The simulated instrument.  It has an interrupt endpoint that sends the events that it is told to
 * send, a bulk endpoint that streams without end, two pairs of endpoints that return what was
 * written to them, and vendor requests that control all this (instrument_protocol.h).
 */
class Instrument final : public DeviceModel {
public:
    // `loadedFirmware` is what a request for the firmware returns.
    explicit Instrument(DeviceShape shape, Bytes loadedFirmware = {});
    // Streams what is in that file.
    Instrument(DeviceShape shape, const std::string &recording);

    void plugged(Port &port) override;

private:
    Answer request(const Setup &setup, std::span<uint8_t> data) override;
    Answer sendData(uint8_t endpoint, std::span<uint8_t> room) override;
    Answer takeData(uint8_t endpoint, std::span<const uint8_t> data) override;

    Answer scratchRequest(const Setup &setup, std::span<uint8_t> data);
    Answer firmwareRequest(const Setup &setup, std::span<uint8_t> room) const;
    Answer vanishRequest(std::span<const uint8_t> data);
    Answer sendStream(std::span<uint8_t> room);
    Answer sendEvents(std::span<uint8_t> room);
    Answer sendFrom(std::deque<uint8_t> &queue, std::span<uint8_t> room);
    void vanish();

    struct Vanishing {
        uint64_t bytesLeft;
        std::optional<std::chrono::milliseconds> returnAfter;
        uint16_t product; // idProduct on return; 0: as before
    };

    const Bytes firmware_;
    const std::optional<Recording> recording_; // in place of the pattern
    uint64_t streamPosition_ = 0;
    std::optional<Vanishing> vanishing_;
    // Packets to be sent; one without bytes holds the time at which it is sent.
    std::deque<std::optional<Bytes>> events_;
    std::deque<uint8_t> bulkLoop_;
    std::deque<uint8_t> interruptLoop_;
    Bytes scratch_;
};

// The shape of an instrument without special properties.
DeviceShape instrumentShape();

} // namespace sim
