#pragma once

namespace vexausb {

class EventDuty {
public:
    EventDuty() = delete;

    // While one of these exists, "usb-libusb" does not leave the events to callers.
    class Reserved {
    public:
        Reserved();
        ~Reserved();
        Reserved(const Reserved &) = delete;
        Reserved &operator=(const Reserved &) = delete;
    };

    // Any thread, after a synchronous transfer that went well; one that failed may have handled no
    // events.
    static void callSucceeded();
    // "usb-libusb", whenever it has handled events: returns when it is its turn again.
    static void leaveToCalls();
    // After libusbRunning was cleared: ends the waiting above.
    static void end();
};

} // namespace vexausb
