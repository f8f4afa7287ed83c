// Streams from the simulated instrument, strictly and with its event pipe, looks at every byte, and
// writes a line, with the monotonic clock's seconds, for each thing that bench/network.py wants to
// know the time of.  The device is one of product 1; if there is one of product 2, it streams in
// the same process, to show whether it has to wait for the other.
//
// Usage: remote-bench BUFFER-SIZE BUFFERS SECONDS EVENTS-PER-SECOND
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <exception>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "core/mutex.h"
#include "devices.h"
#include "instrument_protocol.h"
#include "stream_pattern.h"
#include "vexa_usb.h"

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr uint16_t kProduct = 1;
constexpr uint16_t kOtherProduct = 2;
constexpr uint8_t kEventByte = 0x55; // none of those that mean something for a stream
constexpr std::chrono::milliseconds kOnTheWay{500}; // the longest that an event is

void say(const std::string &what) {
    static vexausb::Mutex mutex; // one line at a time
    const vexausb::MutexLock lock(mutex);
    const double now = Seconds(Clock::now().time_since_epoch()).count();
    std::printf("%.3f %s\n", now, what.c_str());
    std::fflush(stdout);
}

double since(Clock::time_point begin) {
    return Seconds(Clock::now() - begin).count();
}

// Says what a call answered and how long that took.
template <typename Call>
int32_t timed(const char *what, Call call) {
    const auto begin = Clock::now();
    const int32_t status = call();
    say(std::string(what) + " " + std::to_string(status) + " " + std::to_string(since(begin)));
    return status;
}

// The events of a device, for the thread that reads its stream.
class Events {
public:
    static void callback(_vexa_usb_device_event event, void *self) {
        static_cast<Events *>(self)->post(event);
    }
    std::optional<uint32_t> next(std::chrono::milliseconds patience) {
        const vexausb::MutexLock lock(mutex_);
        if (!changed_.waitUntil(mutex_, Clock::now() + patience,
                                [this]() REQUIRES(mutex_) { return !waiting_.empty(); }))
            return std::nullopt;
        const uint32_t event = waiting_.front();
        waiting_.pop_front();
        return event;
    }
    uint64_t bytes() const { return bytes_; }

private:
    void post(uint32_t event) {
        if (event == kEventByte) {
            ++bytes_;
            return;
        }
        const vexausb::MutexLock lock(mutex_);
        waiting_.push_back(event);
        changed_.notifyOne();
    }

    vexausb::Mutex mutex_;
    vexausb::Condition changed_;
    std::deque<uint32_t> waiting_ GUARDED_BY(mutex_);
    std::atomic<uint64_t> bytes_ = 0;
};

// Has the device send events, by control transfers, until it is told to end.
class Talker {
public:
    Talker(_vexa_usb_device *device, double rate) : device_(device) {
        if (rate > 0)
            thread_ = std::thread([this, rate]() { work(Seconds(1 / rate)); });
    }
    ~Talker() { end(); }
    Talker(const Talker &) = delete;
    Talker &operator=(const Talker &) = delete;

    void end() {
        ended_ = true;
        if (thread_.joinable())
            thread_.join();
    }
    uint64_t sent() const { return sent_; }
    uint64_t failed() const { return failed_; }

private:
    void work(Seconds interval) {
        while (!ended_) {
            const auto begin = Clock::now();
            uint8_t byte = kEventByte;
            const int32_t status = vexa_usb_control_transfer(
                device_, VEXA_USB_DIRECTION_OUT, VEXA_USB_TYPE_VENDOR, VEXA_USB_RECIPIENT_DEVICE,
                sim::kRequestSendEvents, 0, 0, &byte, 1);
            ++(status == 0 ? sent_ : failed_);
            if (status != 0)
                say("control " + std::to_string(status) + " " + std::to_string(since(begin)));
            if (status == VEXA_USB_STATUS_DEVICE_REMOVED)
                return;
            std::this_thread::sleep_for(interval);
        }
    }

    _vexa_usb_device *const device_;
    std::atomic<bool> ended_ = false;
    std::atomic<uint64_t> sent_ = 0;
    std::atomic<uint64_t> failed_ = 0;
    std::thread thread_;
};

class Run {
public:
    // `name` stands before what it says.
    Run(_vexa_usb_device *device, Events &events, std::string name = {})
        : device_(device), events_(events), name_(std::move(name)), bytesBefore_(events.bytes()) {}

    // Reads until that time is over or the device has left.
    void read(Seconds time) {
        const auto begin = Clock::now();
        auto last = begin;
        while (!removed_ && Clock::now() - begin < time) {
            const auto event = events_.next(std::chrono::milliseconds(100));
            if (event == VEXA_USB_DEVICE_EVENT_DATA_STREAM_BUFFER_FULL && takeBuffer()) {
                pause_ = std::max(pause_, since(last));
                last = Clock::now();
            } else if (event) {
                say(name_ + "event " + std::to_string(*event));
                removed_ = event == VEXA_USB_DEVICE_EVENT_REMOVED;
            }
        }
        seconds_ = Seconds(last - begin).count();
    }
    double longestPause() const { return pause_; }
    void report(const Talker &talker, double otherPause) const {
        say("bytes " + std::to_string(position_) + " seconds " + std::to_string(seconds_) +
            " pause " + std::to_string(pause_) + " asked " + std::to_string(talker.sent()) +
            " unsure " + std::to_string(talker.failed()) + " events " +
            std::to_string(events_.bytes() - bytesBefore_) + " other " +
            std::to_string(otherPause));
    }

private:
    bool takeBuffer() {
        uint8_t *data = nullptr;
        uint64_t size = 0;
        if (vexa_usb_data_stream_buffer_lock(device_, &data, &size) != 0)
            return false;
        const size_t right = sim::firstPatternError(position_, {data, size});
        bench::require(right == size, "a wrong byte");
        position_ += size;
        return vexa_usb_data_stream_buffer_unlock(device_) == 0;
    }

    _vexa_usb_device *const device_;
    Events &events_;
    const std::string name_;
    const uint64_t bytesBefore_;
    uint64_t position_ = 0;
    double pause_ = 0; // the longest between two buffers
    double seconds_ = 0;
    bool removed_ = false;
};

void start(_vexa_usb_device *device, uint64_t size, uint64_t count) {
    uint8_t position[8]{};
    bench::require(vexa_usb_control_transfer(device, VEXA_USB_DIRECTION_OUT, VEXA_USB_TYPE_VENDOR,
                                             VEXA_USB_RECIPIENT_DEVICE, sim::kRequestSeek, 0, 0,
                                             position, sizeof(position)) == 0,
                   "rewinding");
    bench::require(vexa_usb_data_stream_start(device, sim::kStreamEndpoint, size, count) == 0,
                   "start");
}

// The stream of the other device, if there is one.
class Other {
public:
    explicit Other(Seconds time)
        : events_(*new Events),
          device_(bench::openProduct(kOtherProduct, Events::callback, &events_)),
          reader_(device_, events_, "other ") {
        if (device_ == nullptr)
            return;
        start(device_, 1U << 20, 32);
        thread_ = std::thread([this, time]() { reader_.read(time); });
    }
    ~Other() {
        longestPause();
        if (device_ != nullptr)
            vexa_usb_close(device_);
        vexa_usb_fini();
    }
    Other(const Other &) = delete;
    Other &operator=(const Other &) = delete;

    // Once it has ended.
    double longestPause() {
        if (thread_.joinable())
            thread_.join();
        return reader_.longestPause();
    }

private:
    Events &events_;
    _vexa_usb_device *const device_;
    Run reader_;
    std::thread thread_;
};

void run(uint64_t size, uint64_t count, Seconds time, double eventRate) {
    // The library's threads may call a last time after the close.
    auto &events = *new Events;
    _vexa_usb_device *const device = bench::openProduct(kProduct, Events::callback, &events);
    bench::require(device != nullptr, "no instrument");
    bench::require(vexa_usb_event_pipe_enable(device, sim::kEventEndpoint) == 0, "event pipe");
    std::this_thread::sleep_for(kOnTheWay); // those that another run has left
    start(device, size, count);
    Other other(time);
    Run reader(device, events);
    Talker talker(device, eventRate);
    reader.read(time);
    talker.end();
    std::this_thread::sleep_for(kOnTheWay);
    reader.report(talker, other.longestPause());
    timed("stop", [&]() { return vexa_usb_data_stream_stop(device); });
    timed("close", [&]() { return vexa_usb_close(device); });
    timed("fini", []() {
        vexa_usb_fini();
        return 0;
    });
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 5) {
        std::fprintf(stderr, "usage: remote-bench BUFFER-SIZE BUFFERS SECONDS EVENTS-PER-SECOND\n");
        return 2;
    }
    setenv("VEXA_USB_STREAM", "strict", 1);
    try {
        run(std::strtoull(argv[1], nullptr, 10), std::strtoull(argv[2], nullptr, 10),
            Seconds(std::strtod(argv[3], nullptr)), std::strtod(argv[4], nullptr));
    } catch (const std::exception &error) {
        say(std::string("failed: ") + error.what());
        std::_Exit(1);
    }
    return 0;
}
