#pragma once

#include <libusb.h>

#include "core/use_gate.h"

namespace vexausb {

class LibUSB {
public:
    LibUSB() = delete;

    static void init(libusb_hotplug_callback_fn onHotplug);
    static void fini();

    // Lets the caller use libusbContext for as long as it holds the result; false when there is
    // no context.
    static UseGate::Use useContext();
};

} // namespace vexausb
