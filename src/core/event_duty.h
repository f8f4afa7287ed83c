#pragma once

/*
 * Who handles libusb's events: "usb-libusb", or the callers of synchronous transfers.
 *
 * A synchronous transfer handles all events itself while it waits, unless another thread does: that
 * thread is then woken by the completion and wakes the caller in turn, which is dear for a short
 * request.  So while such transfers follow one another, "usb-libusb" stays out of libusb, for one
 * turn of 10 ms at a time.
 *
 * What comes while nobody is in libusb, such as a hot-plug notice, waits for one turn at most.
 * Asynchronous transfers wait for nothing: while any is in flight, the thread stays in libusb.
 */
namespace vexausb::event_duty {

// While one of these exists, "usb-libusb" does not leave the events to callers.  Any thread.
class Reserved {
public:
    Reserved();
    ~Reserved();
    Reserved(const Reserved &) = delete;
    Reserved &operator=(const Reserved &) = delete;
};

// Any thread, after a synchronous transfer that went well; one that failed may have handled no
// events.
void callSucceeded();
// "usb-libusb", whenever it has handled events: returns when it is its turn again.
void leaveToCalls();
// Ends that wait, after libusbRunning was cleared.
void end();

} // namespace vexausb::event_duty
