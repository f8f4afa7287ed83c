#include "devicelist/hotplug.h"

#include <memory>

#include "core/global_state.h"
#include "devicelist/device_list.h"

namespace vexausb {

// libusb has matched the device against the registered identifiers already.  The result 0 keeps
// the registration.  Once the event loop has ended, a synchronous transfer on any thread would
// still come here now and then; the bus is then followed by updates alone.  Nothing may be thrown
// through libusb, whose locks are held.
int LIBUSB_CALL onHotplug(libusb_context * /*context*/, libusb_device *device,
                          libusb_hotplug_event event, void * /*userData*/) noexcept {
    const std::shared_ptr<DeviceList> list = currentDeviceList();
    if (list == nullptr || !libusbRunning.load())
        return 0;
    if (event == LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED)
        list->deviceArrived(device);
    else if (event == LIBUSB_HOTPLUG_EVENT_DEVICE_LEFT)
        list->deviceLeft(device);
    return 0;
}

} // namespace vexausb
