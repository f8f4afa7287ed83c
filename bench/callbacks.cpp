// Runs the library on the libusb stand-in until it has made a number of callbacks, so that
// callgrind can count the instructions for each:
//   callbacks events PACKETS        packets of 64 bytes in the event pipe, each byte an event
//   callbacks list ENTRIES CYCLES   a device comes and goes, while so many others are listed
#include <cstdint>
#include <cstdlib>
#include <string>

#include "core/mutex.h"
#include "support/fake_libusb.h"
#include "vexa_usb.h"

namespace {

// Counts the calls of the callbacks.
struct Counter {
    vexausb::Mutex mutex;
    vexausb::Condition changed;
    uint64_t count GUARDED_BY(mutex) = 0;

    void add() {
        const vexausb::MutexLock lock(mutex);
        ++count;
        changed.notifyAll();
    }
    void waitFor(uint64_t calls) {
        const vexausb::MutexLock lock(mutex);
        changed.wait(mutex, [this, calls]() REQUIRES(mutex) { return count >= calls; });
    }
    static void deviceEvent(_vexa_usb_device_event, void *data) {
        static_cast<Counter *>(data)->add();
    }
    static void listEvent(uint32_t, const _vexa_usb_device_list_item *, void *data) {
        static_cast<Counter *>(data)->add();
    }
};

int runEvents(Counter &counter, uint64_t packets) {
    _vexa_usb_device_list_item **list = nullptr;
    vexa_usb_get_device_list(&list, nullptr);
    _vexa_usb_device *device = nullptr;
    if (vexa_usb_open(list[0], Counter::deviceEvent, &counter, &device) != 0 ||
        vexa_usb_event_pipe_enable(device, 0x81) != 0)
        return 1;
    vexa_usb_free_device_list(list);
    fake::completeBySelf(packets);
    counter.waitFor(packets * 64);
    return vexa_usb_close(device);
}

int runList(Counter &counter, uint64_t entries, uint64_t cycles) {
    counter.waitFor(entries);
    libusb_device *const device = fake::attach(VEXA_USB_VENDOR_ID, 0x7777);
    for (uint64_t i = 0; i < cycles; ++i) {
        fake::notifyArrival(device);
        counter.waitFor(entries + 2 * i + 1);
        fake::notifyDeparture(device);
        counter.waitFor(entries + 2 * i + 2);
    }
    return 0;
}

} // namespace

int main(int argc, char **argv) {
    const auto number = [&](int index) {
        return argc > index ? std::strtoull(argv[index], nullptr, 10) : 1;
    };
    const bool list = argc > 1 && std::string(argv[1]) == "list";
    for (uint64_t i = 0; i < (list ? number(2) : 1); ++i)
        fake::attach(VEXA_USB_VENDOR_ID, 1);
    Counter &counter = *new Counter; // never deleted: callbacks may come after the end of main
    vexa_usb_init();
    uint32_t id = 0;
    if (list)
        vexa_usb_register_device_list_event_callback(Counter::listEvent, &counter, &id);
    vexa_usb_update_device_list();
    const int result =
        list ? runList(counter, number(2), number(3)) : runEvents(counter, number(2));
    vexa_usb_fini();
    return result;
}
