#include "devicelist/abstract_device_list_item.h"

#include <atomic>

namespace vexausb {

namespace {

std::atomic<uint64_t> nextItemId{0};

} // namespace

AbstractDeviceListItem::AbstractDeviceListItem() : id_(nextItemId.fetch_add(1) + 1) {}

AbstractDeviceListItem::~AbstractDeviceListItem() {
    if (const std::shared_ptr<AbstractDevice> opened = openedDevice())
        opened->setRemoved();
}

void AbstractDeviceListItem::setIdentifiers(uint16_t vendor, uint16_t product) {
    vendorId_ = vendor;
    productId_ = product;
}

void AbstractDeviceListItem::setDevice(const std::shared_ptr<AbstractDevice> &opened) {
    const MutexLock lock(deviceMutex_);
    device_ = opened;
}

std::shared_ptr<AbstractDevice> AbstractDeviceListItem::openedDevice() {
    const MutexLock lock(deviceMutex_);
    return device_.lock();
}

} // namespace vexausb
