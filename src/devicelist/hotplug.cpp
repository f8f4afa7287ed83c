#include "devicelist/hotplug.h"

#include <memory>

#include "core/global_state.h"
#include "devicelist/device_list.h"

namespace vexausb {

// libusb calls this for the registered identifiers only.  The result 0 keeps the registration.
//
// After a re-initialisation there is no event loop, but a synchronous transfer on any thread may
// still bring a notice here.  Such notices are ignored: from then on only updates add entries.
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
