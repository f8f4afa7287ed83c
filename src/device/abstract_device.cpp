#include "device/abstract_device.h"

#include <string>
#include <utility>

namespace vexausb {

/*
 * An opened device as the exported functions see it, whatever carries it.
 *
 * Life: made by its list entry's open(), held by the caller's handle.  The entry keeps a weak
 * reference, and turns it into a strong one only while it says that the device has gone.  So the
 * device is destroyed on the thread that closes the handle, or, when both happen at once, on the
 * thread that destroys the entry.  A call holds a reference, too, for callbacks that close from
 * within it.  Nothing depends on which of them comes last: close() has given everything back by
 * then.
 *
 * Threads: calls come on callers' threads; "usb-device" with a sequence number, owned by
 * `eventQueue`, runs the caller's callback.  A close stops that worker without waiting for it, so a
 * callback may close its own device.  Of the events that are queued at the close none is delivered;
 * the one in hand, if there is one, still is.
 */
namespace {

std::atomic<uint64_t> deviceSequence{0}; // devices constructed in this process; numbers the workers

} // namespace

AbstractDevice::AbstractDevice(DeviceEventHandler handler)
    : eventQueue(std::make_shared<DeviceEventQueue>(std::move(handler))),
      removal(DeviceEventQueue::prepare(VEXA_USB_DEVICE_EVENT_REMOVED)) {
    eventQueue->start("usb-device" + std::to_string(deviceSequence.fetch_add(1)));
}

AbstractDevice::~AbstractDevice() {
    eventQueue->stop();
}

void AbstractDevice::setRemoved() {
    removed.store(true, std::memory_order_release);
    if (removal.empty())
        eventQueue->post(VEXA_USB_DEVICE_EVENT_REMOVED);
    else
        eventQueue->post(removal);
}

void AbstractDevice::close() {
    eventQueue->stop();
}

int32_t AbstractDevice::getKernelDriverVersion(_vexa_usb_version & /*version*/) {
    return VEXA_USB_STATUS_NOT_SUPPORTED;
}

} // namespace vexausb
