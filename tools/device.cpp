#include "device.h"

#include <charconv>
#include <deque>
#include <utility>

#include <fmt/format.h>

#include "core/supported_devices.h"
#include "errors.h"
#include "open_failure.h"

namespace tool {

namespace {

using Item = _vexa_usb_device_list_item;

bool matches(const Item &item, const std::string &choice) {
    if (choice.empty() || choice == identifierText(item.vendor_id, item.product_id))
        return true;
    return choice == std::to_string(item.id);
}

[[noreturn]] void throwNoName(const std::string &text, const char *what) {
    throw Error(Exit::Usage, fmt::format("'{}' is not {}", text, what),
                "Name a device by its id or as VENDOR:PRODUCT, for instance 5658:0001.");
}

// Upper and lower case and a leading 0x are all the same to the user.
std::string normalised(const std::string &choice) {
    if (choice.find_first_not_of("0123456789") == std::string::npos)
        return choice;
    const size_t colon = choice.find(':');
    if (colon == std::string::npos)
        throwNoName(choice, "a name of a device");
    const auto part = [](std::string text) {
        if (text.starts_with("0x") || text.starts_with("0X"))
            text.erase(0, 2);
        uint16_t value = 0;
        const auto [end, error] =
            std::from_chars(text.data(), text.data() + text.size(), value, 16);
        if (error != std::errc() || end != text.data() + text.size())
            throwNoName(text, "a hexadecimal identifier");
        return value;
    };
    return identifierText(part(choice.substr(0, colon)), part(choice.substr(colon + 1)));
}

// Closing a device waits for no callback, so handlers are kept for the life of the process.
Device::EventHandler *keepHandler(Device::EventHandler handler) {
    static auto *const handlers = new std::deque<Device::EventHandler>;
    return &handlers->emplace_back(std::move(handler));
}

void deliver(_vexa_usb_device_event event, void *data) {
    const auto &handler = *static_cast<const Device::EventHandler *>(data);
    if (handler)
        handler(event);
}

} // namespace

std::string identifierText(uint16_t vendor, uint16_t product) {
    return fmt::format("{:04x}:{:04x}", vendor, product);
}

const char *kindText(uint16_t vendor, uint16_t product) {
    const auto *const supported = vexausb::findSupportedDevice(vendor, product);
    return supported != nullptr ? supported->kind : "unknown kind";
}

DeviceList::DeviceList() {
    check(vexa_usb_update_device_list(), "reading the device list");
    uint64_t count = 0;
    check(vexa_usb_get_device_list(&list_, &count), "reading the device list");
    items_.assign(list_, list_ + count);
}

const Item &DeviceList::choose(const std::string &choice) const {
    const std::string wanted = normalised(choice);
    const Item *chosen = nullptr;
    for (const Item *item : items_) {
        if (!matches(*item, wanted))
            continue;
        if (chosen != nullptr)
            throw Error(Exit::NoDevice, "more than one device matches",
                        "Choose one by its id, which 'vexa-usb list' shows.");
        chosen = item;
    }
    if (chosen == nullptr)
        throw Error(Exit::NoDevice,
                    choice.empty() ? "no supported device is attached"
                                   : fmt::format("no device '{}' is attached", choice),
                    "'lsusb' shows whether the system sees it, 'vexa-usb list' what is "
                    "supported; 'vexa-usb-sim --attach' simulates one.");
    return *chosen;
}

Device::Device(const std::string &choice, EventHandler onEvent) {
    const DeviceList list;
    const Item &item = list.choose(choice);
    id_ = item.id;
    const int32_t status = vexa_usb_open(&item, deliver, keepHandler(std::move(onEvent)), &handle_);
    if (status != VEXA_USB_STATUS_SUCCESS)
        throw openFailure(item.vendor_id, item.product_id, status);
}

} // namespace tool
