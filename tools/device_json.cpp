#include "device_json.h"

namespace tool {

nlohmann::json attachedJson(const UsbDevice &device) {
    return {{"vendor", device.vendor},
            {"product", device.product},
            {"kind", kindText(device.vendor, device.product)},
            {"path", device.busPath},
            {"node", device.node},
            {"manufacturer", device.manufacturer},
            {"product_name", device.productName},
            {"serial", device.serial},
            {"speed", device.speed}};
}

nlohmann::json deviceJson(const ListedDevice &listed) {
    nlohmann::json json;
    if (listed.attached)
        json = attachedJson(*listed.attached);
    json["id"] = listed.item->id;
    json["vendor"] = listed.item->vendor_id;
    json["product"] = listed.item->product_id;
    json["kind"] = kindText(listed.item->vendor_id, listed.item->product_id);
    return json;
}

} // namespace tool
