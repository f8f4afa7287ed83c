#pragma once

#include <cstddef>
#include <memory>
#include <new>

#include "devicelist/abstract_device_list_item.h"
#include "vexa_usb.h"

namespace vexausb {

using ItemReference = std::weak_ptr<AbstractDeviceListItem>;

static_assert(sizeof(ItemReference) == sizeof(_vexa_usb_device_list_item::item));
static_assert(alignof(ItemReference) == alignof(void *));
static_assert(sizeof(_vexa_usb_device_list_item) == 32);
static_assert(offsetof(_vexa_usb_device_list_item, product_id) == 10);
static_assert(offsetof(_vexa_usb_device_list_item, item) == 16);

// The caller's records carry a weak reference to their entry in their private field.
inline void fillRecord(_vexa_usb_device_list_item &record,
                       const std::shared_ptr<AbstractDeviceListItem> &item) {
    record.id = item->id;
    record.vendor_id = item->vendorId;
    record.product_id = item->productId;
    new (record.item) ItemReference(item);
}

inline const ItemReference &recordItem(const _vexa_usb_device_list_item &record) {
    return *std::launder(reinterpret_cast<const ItemReference *>(record.item));
}

inline void clearRecord(_vexa_usb_device_list_item &record) {
    std::launder(reinterpret_cast<ItemReference *>(record.item))->~weak_ptr();
}

} // namespace vexausb
