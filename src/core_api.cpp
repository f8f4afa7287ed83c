// The exported functions of the library as a whole: init and fini, version, status texts.
#include <memory>

#include "core/lifecycle.h"
#include "core/status.h"
#include "core/version.h"
#include "devicelist/device_list.h"
#include "devicelist/hotplug.h"
#include "vexa_usb.h"

namespace {

std::shared_ptr<vexausb::DeviceList> makeDeviceList() {
    return std::make_shared<vexausb::DeviceList>();
}

} // namespace

void vexa_usb_init(void) {
    vexausb::beginUse({makeDeviceList, vexausb::onHotplug});
}

void vexa_usb_fini(void) {
    vexausb::endUse();
}

const _vexa_usb_version *vexa_usb_get_version(void) {
    return &vexausb::kVersion;
}

const char *vexa_usb_get_status_str(int32_t status) {
    return vexausb::statusText(status);
}
