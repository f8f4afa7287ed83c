/* Lists the supported devices that are attached. */
#include "common.h"

int main(void) {
    const _vexa_usb_version *version = vexa_usb_get_version();
    _vexa_usb_device_list_item **list;
    uint64_t count;
    vexa_usb_init();
    require(vexa_usb_update_device_list(), "update");
    require(vexa_usb_get_device_list(&list, &count), "list");
    printf("library %d.%d.%d sees %" PRIu64 " devices\n", version->major, version->minor,
           version->patch, count);
    for (uint64_t i = 0; i < count; ++i)
        printf("device %" PRIu64 ": %04x:%04x\n", list[i]->id, list[i]->vendor_id,
               list[i]->product_id);
    vexa_usb_free_device_list(list);
    vexa_usb_fini();
    return 0;
}
