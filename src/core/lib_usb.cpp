#include "core/lib_usb.h"

#include <utility>

#include "core/connection_registry.h"
#include "core/event_duty.h"
#include "core/global_state.h"
#include "core/log.h"
#include "core/supported_devices.h"
#include "core/thread.h"
#include "core/undestroyed.h"

namespace vexausb {

namespace {

// Never destroyed: a thread may still wait for it when the process exits, or have waited when it
// was forked, and the destructor would wait for that thread.
UseGate &contextGate() {
    static Undestroyed<UseGate> only(false);
    return only.get();
}

// Null when there is none.  Written while the gate is closed.
libusb_context *libusbContext GUARDED_BY(initFiniMutex) = nullptr;

void registerHotplug(libusb_hotplug_callback_fn onHotplug) REQUIRES(initFiniMutex) {
    const int events = LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED | LIBUSB_HOTPLUG_EVENT_DEVICE_LEFT;
    for (const SupportedDevice &device : supportedDevices) {
        const int product =
            device.product == kAnyProduct ? LIBUSB_HOTPLUG_MATCH_ANY : device.product;
        const int result =
            libusb_hotplug_register_callback(libusbContext, events, 0, device.vendor, product,
                                             LIBUSB_HOTPLUG_MATCH_ANY, onHotplug, nullptr, nullptr);
        if (result != LIBUSB_SUCCESS)
            logLine(LogLevel::Error,
                    "the bus is not followed for the kind %s: %s; updates still list it",
                    device.kind, libusb_error_name(result));
    }
}

void handleEvents(libusb_context *context) {
    while (libusbRunning.load()) {
        libusb_handle_events(context);
        event_duty::yieldToSynchronousTransfers();
    }
}

void endEventLoop() REQUIRES(initFiniMutex) {
    if (!libusbThread.joinable())
        return;
    libusbRunning.store(false);
    event_duty::endYield();
    libusb_interrupt_event_handler(libusbContext);
    libusbThread.join();
}

} // namespace

void LibUSB::init(libusb_hotplug_callback_fn onHotplug) {
    const int result = libusb_init(&libusbContext);
    if (result != LIBUSB_SUCCESS) {
        libusbContext = nullptr;
        logLine(
            LogLevel::Error,
            "USB cannot be used, and no device will be listed: %s; is /dev/bus/usb there, may this "
            "user read it, and may it have more open files and threads (ulimit -n, -u)?",
            libusb_error_name(result));
        return;
    }
    registerHotplug(onHotplug);
    const bool loopRuns = libusbRunning.load();
    try {
        libusbThread =
            startThread("usb-libusb", [context = libusbContext]() { handleEvents(context); });
    } catch (...) {
        libusb_exit(std::exchange(libusbContext, nullptr));
        throw;
    }
    connection_registry::open(loopRuns);
    contextGate().open();
}

void LibUSB::fini() {
    connection_registry::close();
    contextGate().close();
    endEventLoop();
    if (libusbContext != nullptr)
        libusb_exit(libusbContext);
    libusbContext = nullptr;
}

LibUSB::ContextUse::ContextUse() : use_(contextGate().enter()) {}

// Instead of the mutex the gate protects the context here: nobody writes it while a user is inside.
libusb_context *LibUSB::ContextUse::context() const NO_THREAD_SAFETY_ANALYSIS {
    return libusbContext;
}

} // namespace vexausb
