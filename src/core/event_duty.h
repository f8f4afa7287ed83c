#pragma once

/*
 * Which thread handles libusb's events: "usb-libusb", or the callers of synchronous transfers.
 *
 * A caller in a synchronous transfer handles all events itself while it waits, unless another
 * thread is doing so already.  In that case the completion wakes the other thread, which then has
 * to wake the caller; short requests take much longer by this.  So whenever a synchronous transfer
 * has succeeded since "usb-libusb" last handled events, that thread stays out of libusb for 10 ms.
 *
 * Events that come while no thread is in libusb, such as hot-plug notices, wait for those 10 ms at
 * most.  Asynchronous transfers never wait: while any is in flight, the thread stays in libusb.
 */
namespace vexausb::event_duty {

// While one of these exists, "usb-libusb" handles the events itself.  Any thread.
class Reserved {
public:
    Reserved();
    ~Reserved();
    Reserved(const Reserved &) = delete;
    Reserved &operator=(const Reserved &) = delete;
};

// To be called after each synchronous transfer that succeeded, on any thread.  One that failed may
// have handled no events.
void noteSynchronousTransfer();
// Called by "usb-libusb" whenever it has handled events; returns when it is to handle them again.
void yieldToSynchronousTransfers();
// Ends that wait at once; libusbRunning has to be false already.
void endYield();

} // namespace vexausb::event_duty
