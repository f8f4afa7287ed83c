#include "list_changes.h"

#include "errors.h"
#include "vexa_usb.h"

namespace tool {

namespace {

using Mail = Mailbox<ListChange>;

// A callback may run once more after its deregistration, so its mailbox is never freed.
Mail &mail() {
    static auto *const changes = new Mail;
    return *changes;
}

void onListChange(uint32_t type, const _vexa_usb_device_list_item *item, void * /*data*/) {
    mail().post({type, item->id, item->vendor_id, item->product_id});
}

} // namespace

ListChanges::ListChanges() {
    check(vexa_usb_register_device_list_event_callback(onListChange, nullptr, &callbackId_),
          "watching the device list");
    check(vexa_usb_update_device_list(), "reading the device list");
}

ListChanges::~ListChanges() {
    vexa_usb_deregister_device_list_event_callback(callbackId_);
}

std::optional<ListChange> ListChanges::wait(std::chrono::milliseconds atMost) {
    return mail().wait(atMost);
}

} // namespace tool
