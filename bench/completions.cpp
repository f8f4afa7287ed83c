// Streams a number of transfers from the libusb stand-in, so that callgrind can count the
// instructions for each.
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "core/mutex.h"
#include "support/fake_libusb.h"
#include "vexa_usb.h"

namespace {

constexpr uint64_t kBufferSize = 524288; // one transfer a buffer
constexpr uint64_t kBufferCount = 16;

struct Consumer {
    _vexa_usb_device *device = nullptr; // set before a stream starts
    vexausb::Mutex mutex;
    vexausb::Condition done;
    uint64_t left GUARDED_BY(mutex) = 0;

    static void callback(_vexa_usb_device_event event, void *data) {
        auto &self = *static_cast<Consumer *>(data);
        if (event != VEXA_USB_DEVICE_EVENT_DATA_STREAM_BUFFER_FULL)
            return;
        uint8_t *bytes = nullptr;
        uint64_t size = 0;
        if (vexa_usb_data_stream_buffer_lock(self.device, &bytes, &size) == 0)
            vexa_usb_data_stream_buffer_unlock(self.device);
        const vexausb::MutexLock lock(self.mutex);
        if (--self.left == 0)
            self.done.notifyAll();
    }
};

} // namespace

int main(int argc, char **argv) {
    const uint64_t transfers = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1000;
    fake::attach(VEXA_USB_VENDOR_ID, 1);
    vexa_usb_init();
    vexa_usb_update_device_list();
    _vexa_usb_device_list_item **list = nullptr;
    vexa_usb_get_device_list(&list, nullptr);
    Consumer &consumer = *new Consumer; // never deleted: callbacks may come after the end of main
    if (vexa_usb_open(list[0], Consumer::callback, &consumer, &consumer.device) != 0)
        return 1;
    vexa_usb_free_device_list(list);
    if (vexa_usb_data_stream_start(consumer.device, 0x82, kBufferSize, kBufferCount) != 0)
        return 1;
    // Never more at once than the ring can hold, so that the consumer cannot be too slow.
    for (uint64_t sent = 0; sent < transfers; sent += kBufferCount / 2) {
        const vexausb::MutexLock lock(consumer.mutex);
        consumer.left = kBufferCount / 2;
        fake::completeBySelf(kBufferCount / 2);
        consumer.done.wait(consumer.mutex,
                           [&consumer]() REQUIRES(consumer.mutex) { return consumer.left == 0; });
    }
    vexa_usb_close(consumer.device);
    vexa_usb_fini();
    return 0;
}
