#pragma once

#include <cstddef>
#include <memory>
#include <new>

#include "devicelist/abstract_device_list_item.h"
#include "vexa_usb.h"

/*
 * The records of the device list that callers get.  A record carries a weak reference to its entry
 * in its private field `item`: it keeps no entry alive, and any thread may read it.
 *
 * Whoever fills a record clears it later: a record in an array belongs to the caller until
 * vexa_usb_free_device_list(), that of a callback to the library, for the time of the call.
 */
namespace vexausb {

using ItemReference = std::weak_ptr<AbstractDeviceListItem>;

static_assert(sizeof(ItemReference) == sizeof(_vexa_usb_device_list_item::item));
static_assert(alignof(ItemReference) == alignof(void *));
static_assert(sizeof(_vexa_usb_device_list_item) == 32);
static_assert(offsetof(_vexa_usb_device_list_item, product_id) == 10);
static_assert(offsetof(_vexa_usb_device_list_item, item) == 16);

// For a record that holds no reference yet.
inline void fillRecord(_vexa_usb_device_list_item &record,
                       const std::shared_ptr<AbstractDeviceListItem> &item) {
    record.id = item->id();
    record.vendor_id = item->vendorId();
    record.product_id = item->productId();
    new (record.item) ItemReference(item);
}

// The entry of a filled record; expired once the entry has been destroyed.
inline const ItemReference &recordItem(const _vexa_usb_device_list_item &record) {
    return *std::launder(reinterpret_cast<const ItemReference *>(record.item));
}

// Releases the reference of a filled record.
inline void clearRecord(_vexa_usb_device_list_item &record) {
    std::launder(reinterpret_cast<ItemReference *>(record.item))->~weak_ptr();
}

} // namespace vexausb
