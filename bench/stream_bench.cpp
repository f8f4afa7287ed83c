// Reads a number of bytes from the simulated instrument's stream in one of several ways, looks at
// every byte, and prints the seconds and the processor seconds from the start to the end of it.
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <libusb.h>

#include "core/mutex.h"
#include "devices.h"
#include "instrument_protocol.h"
#include "vexa_usb.h"

namespace {

using bench::BareDevice;
using bench::require;
using vexausb::Condition;
using vexausb::Mutex;
using vexausb::MutexLock;

constexpr uint64_t kMaxTransferSize = 524288;
constexpr int kTransferCount = 3;

struct Shape {
    uint64_t bufferSize;
    uint64_t bufferCount;
    uint64_t bytes; // to be read in all
};

// What a consumer does with its data: it copies them, if there is room for that, or else adds up
// all words, in a variable that cannot be left out.
std::vector<uint8_t> room;
volatile uint64_t total = 0;

void lookAt(const uint8_t *data, uint64_t size) {
    if (!room.empty()) {
        std::memcpy(room.data(), data, std::min(size, room.size()));
        return;
    }
    uint64_t sum = 0;
    for (uint64_t i = 0; i + sizeof(uint64_t) <= size; i += sizeof(uint64_t)) {
        uint64_t word = 0;
        std::memcpy(&word, data + i, sizeof(word));
        sum += word;
    }
    total = total + sum;
}

// Pieces of equal size, each of whole packets.
uint64_t transferSize(uint64_t bufferSize, uint64_t packetSize) {
    const uint64_t pieces = (bufferSize + kMaxTransferSize - 1) / kMaxTransferSize;
    return (bufferSize / pieces + packetSize - 1) / packetSize * packetSize;
}

class Stopwatch {
public:
    double seconds() const {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    }
    double processorSeconds() const { return processor() - processorStart_; }

private:
    static double processor() {
        rusage usage{};
        getrusage(RUSAGE_SELF, &usage);
        const auto inSeconds = [](const timeval &time) {
            return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
        };
        return inSeconds(usage.ru_utime) + inSeconds(usage.ru_stime);
    }

    const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
    const double processorStart_ = processor();
};

void report(const Stopwatch &watch) {
    std::printf("%f %f\n", watch.seconds(), watch.processorSeconds());
}

// A bare device, and the size of its stream's packets.
class StreamDevice : public BareDevice {
public:
    const uint64_t packetSize = static_cast<uint64_t>(
        libusb_get_max_packet_size(libusb_get_device(handle), sim::kStreamEndpoint));
};

// As the library does, once all that is wanted has come.
void cancelOthers(const std::vector<libusb_transfer *> &transfers, const libusb_transfer *done) {
    for (libusb_transfer *const transfer : transfers) {
        if (transfer != done)
            libusb_cancel_transfer(transfer);
    }
}

// Three transfers that are looked at and resubmitted as they complete, in a single thread.
class BareLoop {
public:
    void run(const Shape &shape, bool shared) {
        const StreamDevice device;
        const Stopwatch watch;
        const uint64_t size = transferSize(shape.bufferSize, device.packetSize);
        left_ = shape.bytes;
        std::vector<std::unique_ptr<uint8_t[]>> ordinary;
        for (int i = 0; i < kTransferCount; ++i) {
            uint8_t *memory = nullptr;
            if (shared) {
                memory = libusb_dev_mem_alloc(device.handle, size);
            } else {
                ordinary.emplace_back(new uint8_t[size]);
                memory = ordinary.back().get();
            }
            require(memory != nullptr, "memory");
            libusb_transfer *const transfer = libusb_alloc_transfer(0);
            libusb_fill_bulk_transfer(transfer, device.handle, sim::kStreamEndpoint, memory,
                                      static_cast<int>(size), completed, this, 0);
            require(libusb_submit_transfer(transfer) == 0, "submit");
            transfers_.push_back(transfer);
            ++flying_;
        }
        while (flying_ > 0)
            libusb_handle_events(device.context);
        for (libusb_transfer *transfer : transfers_) {
            if (shared)
                libusb_dev_mem_free(device.handle, transfer->buffer, size);
            libusb_free_transfer(transfer);
        }
        report(watch);
        require(left_ == 0, "a transfer failed");
    }

private:
    static void LIBUSB_CALL completed(libusb_transfer *transfer) {
        auto &self = *static_cast<BareLoop *>(transfer->user_data);
        if (transfer->status == LIBUSB_TRANSFER_COMPLETED && self.left_ > 0) {
            const auto actual = static_cast<uint64_t>(transfer->actual_length);
            lookAt(transfer->buffer, actual);
            self.left_ -= std::min(actual, self.left_);
            if (self.left_ > 0 && libusb_submit_transfer(transfer) == 0)
                return;
            cancelOthers(self.transfers_, transfer);
        }
        --self.flying_;
    }

    std::vector<libusb_transfer *> transfers_;
    uint64_t left_ = 0;
    int flying_ = 0;
};

// What an expert writes: three transfers fill the buffers of a ring one after the other, and a
// thread is woken for each full one.  Buffers are rounded up to whole packets, so nothing
// overshoots.
class RingByHand {
public:
    void run(const Shape &shape) {
        const StreamDevice device;
        const Stopwatch watch;
        size_ = transferSize(shape.bufferSize, device.packetSize);
        pieces_ = (shape.bufferSize + size_ - 1) / size_;
        for (uint64_t i = 0; i < shape.bufferCount; ++i)
            buffers_.emplace_back(new uint8_t[size_ * pieces_]);
        want(shape.bytes);
        for (int i = 0; i < kTransferCount; ++i) {
            libusb_transfer *const transfer = libusb_alloc_transfer(0);
            libusb_fill_bulk_transfer(transfer, device.handle, sim::kStreamEndpoint, nullptr,
                                      static_cast<int>(size_), completed, this, 0);
            transfers_.push_back(transfer);
            ++flying_;
            submit(transfer);
        }
        std::thread consumer([this]() { consume(); });
        while (flying_ > 0)
            libusb_handle_events(device.context);
        consumer.join();
        for (libusb_transfer *const transfer : transfers_)
            libusb_free_transfer(transfer);
        buffers_.clear();
        report(watch);
    }

private:
    void want(uint64_t bytes) {
        const MutexLock lock(mutex_);
        left_ = bytes;
    }

    // On the thread that handles events.
    void submit(libusb_transfer *transfer) {
        transfer->buffer =
            buffers_[next_ / pieces_ % buffers_.size()].get() + next_ % pieces_ * size_;
        ++next_;
        require(libusb_submit_transfer(transfer) == 0, "submit");
    }

    static void LIBUSB_CALL completed(libusb_transfer *transfer) {
        auto &self = *static_cast<RingByHand *>(transfer->user_data);
        const bool isWhole = transfer->status == LIBUSB_TRANSFER_COMPLETED;
        if (isWhole && self.countCompleted()) {
            self.submit(transfer);
            return;
        }
        if (isWhole)
            cancelOthers(self.transfers_, transfer);
        --self.flying_;
    }

    // Wakes the consumer for a full buffer; false once the consumer has had all that is wanted.
    bool countCompleted() {
        const MutexLock lock(mutex_);
        if (left_ == 0)
            return false;
        if (++completed_ % pieces_ == 0)
            full_.notifyOne();
        if (completed_ / pieces_ >= taken_ + buffers_.size())
            std::abort(); // overflow
        return true;
    }

    void consume() {
        mutex_.lock();
        while (left_ > 0) {
            full_.wait(mutex_, [this]() REQUIRES(mutex_) { return completed_ / pieces_ > taken_; });
            const uint8_t *const data = buffers_[taken_ % buffers_.size()].get();
            mutex_.unlock();
            lookAt(data, size_ * pieces_);
            mutex_.lock();
            ++taken_;
            left_ -= std::min(size_ * pieces_, left_);
        }
        mutex_.unlock();
    }

    // Set before the transfers start.
    uint64_t size_ = 0;
    uint64_t pieces_ = 0; // of a buffer
    std::vector<std::unique_ptr<uint8_t[]>> buffers_;

    // The event thread's.
    std::vector<libusb_transfer *> transfers_;
    uint64_t next_ = 0;
    int flying_ = 0;

    Mutex mutex_;
    Condition full_;
    uint64_t completed_ GUARDED_BY(mutex_) = 0; // pieces
    uint64_t taken_ GUARDED_BY(mutex_) = 0;     // buffers
    uint64_t left_ GUARDED_BY(mutex_) = 0;      // bytes
};

// This library; each buffer is locked, looked at and given back.
class LibraryStream {
public:
    void run(const Shape &shape) {
        device_ = bench::openFirst(callback, this);
        want(shape.bytes);
        const Stopwatch watch;
        require(vexa_usb_data_stream_start(device_, sim::kStreamEndpoint, shape.bufferSize,
                                           shape.bufferCount) == 0,
                "start");
        startSeconds_ = watch.seconds();
        waitForAll();
        vexa_usb_data_stream_stop(device_);
        report(watch);
        vexa_usb_close(device_);
        vexa_usb_fini();
    }
    double startSeconds() const { return startSeconds_; }

private:
    static void callback(_vexa_usb_device_event event, void *data) {
        if (event == VEXA_USB_DEVICE_EVENT_DATA_STREAM_BUFFER_FULL)
            static_cast<LibraryStream *>(data)->take();
        else if (event == VEXA_USB_DEVICE_EVENT_REMOVED ||
                 event == VEXA_USB_DEVICE_EVENT_DATA_STREAM_ERROR)
            static_cast<LibraryStream *>(data)->failed();
    }
    void want(uint64_t bytes) {
        const MutexLock lock(mutex_);
        left_ = bytes;
    }
    void waitForAll() {
        const MutexLock lock(mutex_);
        done_.wait(mutex_, [this]() REQUIRES(mutex_) { return left_ == 0; });
    }
    // Once all is read, the ring may well run full before it is stopped.
    void failed() {
        const MutexLock lock(mutex_);
        if (left_ > 0)
            std::abort();
    }
    void take() {
        uint8_t *data = nullptr;
        uint64_t size = 0;
        const MutexLock lock(mutex_); // so that the device is not closed meanwhile
        if (left_ == 0 || vexa_usb_data_stream_buffer_lock(device_, &data, &size) != 0)
            return;
        lookAt(data, size);
        vexa_usb_data_stream_buffer_unlock(device_);
        left_ -= std::min(size, left_);
        if (left_ == 0)
            done_.notifyAll();
    }

    _vexa_usb_device *device_ = nullptr;
    double startSeconds_ = 0;
    Mutex mutex_;
    Condition done_;
    uint64_t left_ GUARDED_BY(mutex_) = 0;
};

void run(const std::string &way, const Shape &shape) {
    if (way == "bare" || way == "bare-shared")
        BareLoop().run(shape, way == "bare-shared");
    else if (way == "hand")
        RingByHand().run(shape);
    else {
        auto *const stream = new LibraryStream; // callbacks can come late: it lives on
        stream->run(shape);
        std::printf("%f\n", stream->startSeconds());
    }
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 5 && (argc != 6 || std::string(argv[5]) != "copy")) {
        std::fprintf(
            stderr,
            "usage: %s bare|bare-shared|hand|library BUFFER-SIZE BUFFER-COUNT BYTES [copy]\n",
            argv[0]);
        return 2;
    }
    try {
        if (argc == 6)
            room.resize(std::strtoull(argv[2], nullptr, 10));
        run(argv[1], {std::strtoull(argv[2], nullptr, 10), std::strtoull(argv[3], nullptr, 10),
                      std::strtoull(argv[4], nullptr, 10)});
    } catch (const std::exception &error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
    return 0;
}
