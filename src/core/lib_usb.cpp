#include "core/lib_usb.h"

#include <utility>

#include "core/connection_registry.h"
#include "core/event_duty.h"
#include "core/global_state.h"
#include "core/log.h"
#include "core/supported_devices.h"
#include "core/thread.h"

namespace vexausb {

namespace {

UseGate contextGate{false};

void registerHotplug(libusb_hotplug_callback_fn onHotplug) {
    const int events = LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED | LIBUSB_HOTPLUG_EVENT_DEVICE_LEFT;
    for (const SupportedDevice &device : supportedDevices) {
        const int product =
            device.product == kAnyProduct ? LIBUSB_HOTPLUG_MATCH_ANY : device.product;
        const int result =
            libusb_hotplug_register_callback(libusbContext, events, 0, device.vendor, product,
                                             LIBUSB_HOTPLUG_MATCH_ANY, onHotplug, nullptr, nullptr);
        if (result != LIBUSB_SUCCESS)
            logLine(LogLevel::Error,
                    "the bus is not followed for the kind %s: %s; updates list it all the same",
                    device.kind, libusb_error_name(result));
    }
}

void handleEvents() {
    while (libusbRunning.load()) {
        libusb_handle_events(libusbContext);
        event_duty::leaveToCalls();
    }
}

void endEventLoop() {
    if (!libusbThread.joinable())
        return;
    libusbRunning.store(false);
    event_duty::end();
    libusb_interrupt_event_handler(libusbContext);
    libusbThread.join();
}

} // namespace

// A context that cannot be had leaves the library without devices; nothing else depends on it.  A
// thread that cannot be started leaves nothing behind, and the exception goes to init's caller.
void LibUSB::init(libusb_hotplug_callback_fn onHotplug) {
    const int result = libusb_init(&libusbContext);
    if (result != LIBUSB_SUCCESS) {
        libusbContext = nullptr;
        logLine(
            LogLevel::Error,
            "USB cannot be used, and no device will be listed: %s; is /dev/bus/usb there, and may "
            "this user read it?",
            libusb_error_name(result));
        return;
    }
    registerHotplug(onHotplug);
    const bool loopRuns = libusbRunning.load();
    try {
        libusbThread = startThread("usb-libusb", handleEvents);
    } catch (...) {
        libusb_exit(std::exchange(libusbContext, nullptr));
        throw;
    }
    connection_registry::open(loopRuns);
    contextGate.open();
}

void LibUSB::fini() {
    connection_registry::close();
    contextGate.close();
    endEventLoop();
    if (libusbContext != nullptr)
        libusb_exit(libusbContext);
    libusbContext = nullptr;
}

UseGate::Use LibUSB::useContext() {
    return contextGate.enter();
}

} // namespace vexausb
