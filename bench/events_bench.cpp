// Receives events from the simulated instrument, by this library or by a loop over bare libusb.
// Prints the events per second, and the median and the 99th percentile of the time from the
// simulator's answer to the caller's callback, in microseconds.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include <libusb.h>

#include "core/mutex.h"
#include "devices.h"
#include "instrument_protocol.h"
#include "vexa_usb.h"

namespace {

using bench::require;
using Clock = std::chrono::steady_clock;

constexpr size_t kPackets = 4000;
constexpr size_t kPacketSize = 64;
constexpr size_t kTimes = 500;
constexpr uint8_t kVendorOut = 0x40;

// What the caller does with each event.
class Receiver {
public:
    // Whether the events are the bytes of times, eight for each.
    bool measuresLatency = false;

    void event(uint8_t byte) {
        ++count;
        if (!measuresLatency)
            return;
        time_[filled_++] = byte;
        if (filled_ < sizeof(time_))
            return;
        filled_ = 0;
        int64_t sent = 0;
        std::memcpy(&sent, time_, sizeof(sent));
        const int64_t now = Clock::now().time_since_epoch() / std::chrono::nanoseconds(1);
        latencies.push_back(static_cast<double>(now - sent) / 1e3);
    }

    uint64_t count = 0;
    std::vector<double> latencies;

private:
    uint8_t time_[8] = {};
    size_t filled_ = 0;
};

// A way to receive events.
class EventSource {
public:
    virtual ~EventSource() = default;
    virtual void request(uint8_t request, uint16_t value, std::vector<uint8_t> data) = 0;
    virtual void arm() = 0;
    virtual void waitFor(uint64_t events) = 0;

    Receiver receiver;
};

class Bare final : public EventSource {
public:
    ~Bare() override {
        libusb_cancel_transfer(transfer_);
        while (armed_)
            libusb_handle_events(device_.context);
        libusb_free_transfer(transfer_);
    }
    void request(uint8_t request, uint16_t value, std::vector<uint8_t> data) override {
        require(libusb_control_transfer(device_.handle, kVendorOut, request, value, 0, data.data(),
                                        static_cast<uint16_t>(data.size()), 1000) >= 0,
                "request");
    }
    void arm() override {
        libusb_fill_interrupt_transfer(transfer_, device_.handle, sim::kEventEndpoint, buffer_,
                                       kPacketSize, completed, this, 0);
        require(libusb_submit_transfer(transfer_) == 0, "submit");
        armed_ = true;
    }
    void waitFor(uint64_t events) override {
        while (receiver.count < events)
            libusb_handle_events(device_.context);
    }

private:
    static void LIBUSB_CALL completed(libusb_transfer *transfer) {
        auto &self = *static_cast<Bare *>(transfer->user_data);
        self.armed_ = transfer->status == LIBUSB_TRANSFER_COMPLETED;
        if (!self.armed_)
            return;
        for (int i = 0; i < transfer->actual_length; ++i)
            self.receiver.event(transfer->buffer[i]);
        require(libusb_submit_transfer(transfer) == 0, "submit");
    }

    bench::BareDevice device_;
    libusb_transfer *const transfer_ = libusb_alloc_transfer(0);
    uint8_t buffer_[kPacketSize] = {};
    bool armed_ = false;
};

// Never deleted: callbacks may come after the end of main.
class Library final : public EventSource {
public:
    void request(uint8_t request, uint16_t value, std::vector<uint8_t> data) override {
        require(vexa_usb_control_transfer(device_, VEXA_USB_DIRECTION_OUT, VEXA_USB_TYPE_VENDOR,
                                          VEXA_USB_RECIPIENT_DEVICE, request, value, 0, data.data(),
                                          data.size()) == 0,
                "request");
    }
    void arm() override {
        require(vexa_usb_event_pipe_enable(device_, sim::kEventEndpoint) == 0, "enable");
    }
    void waitFor(uint64_t events) override {
        const vexausb::MutexLock lock(mutex_);
        awaited_ = events;
        reached_.wait(mutex_, [&]() { return receiver.count >= events; });
    }
    void end() {
        vexa_usb_close(device_);
        vexa_usb_fini();
    }

private:
    static void callback(_vexa_usb_device_event event, void *data) {
        auto &self = *static_cast<Library *>(data);
        const vexausb::MutexLock lock(self.mutex_);
        self.receiver.event(static_cast<uint8_t>(event));
        if (self.receiver.count == self.awaited_)
            self.reached_.notifyAll();
    }

    vexausb::Mutex mutex_; // also the receiver's, while events come
    vexausb::Condition reached_;
    uint64_t awaited_ GUARDED_BY(mutex_) = 0;
    // The last member: from its initialisation on, callbacks may use the others.
    _vexa_usb_device *const device_ = bench::openFirst(callback, this);
};

// All packets wait in the simulator before the start, so that only the pipe is measured.
void measure(EventSource &source) {
    const std::vector<uint8_t> packet(kPacketSize, 0x5A);
    for (size_t i = 0; i < kPackets; ++i)
        source.request(sim::kRequestSendEvents, 0, packet);
    const auto start = Clock::now();
    source.arm();
    uint64_t events = kPackets * kPacketSize;
    source.waitFor(events);
    const std::chrono::duration<double> time = Clock::now() - start;

    source.receiver.measuresLatency = true;
    for (size_t i = 0; i < kTimes; ++i) {
        source.request(sim::kRequestSendTimes, 1, {});
        source.waitFor(events += sizeof(int64_t));
    }
    std::vector<double> &latencies = source.receiver.latencies;
    std::sort(latencies.begin(), latencies.end());
    std::printf("%f %f %f\n", static_cast<double>(kPackets * kPacketSize) / time.count(),
                latencies[latencies.size() / 2], latencies[latencies.size() * 99 / 100]);
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s bare|library\n", argv[0]);
        return 2;
    }
    try {
        if (std::string(argv[1]) == "bare") {
            Bare bare;
            measure(bare);
        } else {
            auto &library = *new Library;
            measure(library);
            library.end();
        }
    } catch (const std::exception &error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
    return 0;
}
