// Reads a number of bytes from the simulated instrument's stream in one of three ways and prints
// the time and the processor time that it took.
#include <sys/resource.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <mutex>
#include <string>
#include <vector>

#include <libusb.h>

#include "devices.h"
#include "instrument_protocol.h"
#include "vexa_usb.h"

namespace {

using bench::BareDevice;
using bench::require;

constexpr int kTransferSize = 524288;
constexpr int kTransferCount = 3;
constexpr uint64_t kBufferSize = 4194304;
constexpr uint64_t kBufferCount = 3;

// (a): three transfers, resubmitted as they complete; nobody looks at the data.
struct BareLoop {
    uint64_t left = 0;
    int flying = 0;

    static void LIBUSB_CALL completed(libusb_transfer *transfer) {
        auto &self = *static_cast<BareLoop *>(transfer->user_data);
        const auto actual = static_cast<uint64_t>(transfer->actual_length);
        self.left -= actual < self.left ? actual : self.left;
        if (transfer->status != LIBUSB_TRANSFER_COMPLETED || self.left == 0 ||
            libusb_submit_transfer(transfer) != 0)
            --self.flying;
    }

    void run(uint64_t bytes) {
        const BareDevice device;
        std::vector<std::vector<uint8_t>> buffers(kTransferCount);
        std::vector<libusb_transfer *> transfers;
        left = bytes;
        for (auto &buffer : buffers) {
            buffer.resize(kTransferSize);
            libusb_transfer *const transfer = libusb_alloc_transfer(0);
            libusb_fill_bulk_transfer(transfer, device.handle, sim::kStreamEndpoint, buffer.data(),
                                      kTransferSize, completed, this, 0);
            require(libusb_submit_transfer(transfer) == 0, "submit");
            transfers.push_back(transfer);
            ++flying;
        }
        while (flying > 0)
            libusb_handle_events(device.context);
        for (libusb_transfer *transfer : transfers)
            libusb_free_transfer(transfer);
        require(left == 0, "a transfer failed");
    }
};

// (b): this library; each buffer is locked and given back.
class LibraryStream {
public:
    void run(uint64_t bytes) {
        device_ = bench::openFirst(callback, this);
        left_ = bytes;
        require(vexa_usb_data_stream_start(device_, sim::kStreamEndpoint, kBufferSize,
                                           kBufferCount) == 0,
                "start");
        {
            std::unique_lock lock(mutex_);
            done_.wait(lock, [this]() { return left_ == 0; });
        }
        vexa_usb_close(device_);
        vexa_usb_fini();
    }

private:
    static void callback(_vexa_usb_device_event event, void *data) {
        if (event == VEXA_USB_DEVICE_EVENT_DATA_STREAM_BUFFER_FULL)
            static_cast<LibraryStream *>(data)->take();
        else if (event == VEXA_USB_DEVICE_EVENT_DATA_STREAM_ERROR ||
                 event == VEXA_USB_DEVICE_EVENT_REMOVED)
            std::abort();
    }
    // Under the mutex, so that the device is not closed meanwhile.
    void take() {
        const std::lock_guard lock(mutex_);
        uint8_t *data = nullptr;
        uint64_t size = 0;
        if (left_ == 0 || vexa_usb_data_stream_buffer_lock(device_, &data, &size) != 0)
            return;
        vexa_usb_data_stream_buffer_unlock(device_);
        left_ -= size < left_ ? size : left_;
        if (left_ == 0)
            done_.notify_all();
    }

    _vexa_usb_device *device_ = nullptr;
    std::mutex mutex_;
    std::condition_variable done_;
    uint64_t left_ = 0;
};

// (c): one blocking read after the other.
void blockingReads(uint64_t bytes) {
    const BareDevice device;
    std::vector<uint8_t> buffer(kTransferSize);
    for (uint64_t done = 0; done < bytes;) {
        int actual = 0;
        require(libusb_bulk_transfer(device.handle, sim::kStreamEndpoint, buffer.data(),
                                     kTransferSize, &actual, 0) == 0,
                "read");
        done += static_cast<uint64_t>(actual);
    }
}

double processorSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval &time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s bare|library|blocking BYTES\n", argv[0]);
        return 2;
    }
    const std::string mode = argv[1];
    const uint64_t bytes = std::strtoull(argv[2], nullptr, 10);
    const auto start = std::chrono::steady_clock::now();
    try {
        if (mode == "bare")
            BareLoop().run(bytes);
        else if (mode == "library")
            (new LibraryStream)->run(bytes); // callbacks can come late: it lives on
        else
            blockingReads(bytes);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
    const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
    std::printf("%f %f\n", time.count(), processorSeconds());
    return 0;
}
