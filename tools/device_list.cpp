#include "device_list.h"

#include <charconv>
#include <map>
#include <utility>

#include <fmt/format.h>

#include "core/supported_devices.h"
#include "errors.h"

namespace tool {

namespace {

[[noreturn]] void throwNoName(const std::string &text, const char *what) {
    throw Error(Exit::Usage, fmt::format("'{}' is not {}", text, what),
                "Name a device by its id or as VENDOR:PRODUCT, for instance 5658:0001; --serial "
                "and --path choose among equal ones.");
}

// Users may write identifiers in either case and with a leading 0x.
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

bool matches(const ListedDevice &listed, const DeviceChoice &wanted) {
    const _vexa_usb_device_list_item &item = *listed.item;
    const bool isNamed = wanted.device.empty() || wanted.device == std::to_string(item.id) ||
                         wanted.device == identifierText(item.vendor_id, item.product_id);
    const auto isAs = [&](const std::string &text, std::string UsbDevice::*field) {
        return text.empty() || (listed.attached && *listed.attached.*field == text);
    };
    return isNamed && isAs(wanted.serial, &UsbDevice::serial) &&
           isAs(wanted.busPath, &UsbDevice::busPath);
}

std::string textOf(const DeviceChoice &choice) {
    std::string text = choice.device.empty() ? "" : fmt::format(" '{}'", choice.device);
    if (!choice.serial.empty())
        text += fmt::format(" with serial '{}'", choice.serial);
    if (!choice.busPath.empty())
        text += fmt::format(" at path '{}'", choice.busPath);
    return text;
}

// The options that choose this device.
std::string lineFor(const ListedDevice &listed) {
    std::string line = fmt::format("\n    --device {}  {}", listed.item->id,
                                   identifierText(listed.item->vendor_id, listed.item->product_id));
    if (listed.attached)
        line += fmt::format("  --path {}", listed.attached->busPath);
    if (listed.attached && !listed.attached->serial.empty())
        line += fmt::format("  --serial '{}'", listed.attached->serial);
    return line;
}

[[noreturn]] void throwSeveral(const std::vector<const ListedDevice *> &found) {
    std::string lines;
    for (const ListedDevice *listed : found)
        lines += lineFor(*listed);
    throw Error(Exit::NoDevice, "more than one device matches",
                "Choose one, as 'vexa-usb list' shows them:" + lines);
}

[[noreturn]] void throwNone(const DeviceChoice &choice) {
    const std::string text = textOf(choice);
    throw Error(Exit::NoDevice,
                text.empty() ? "no supported device is attached"
                             : fmt::format("no device{} is attached", text),
                "'vexa-usb doctor' and 'lsusb' show whether the system sees it, 'vexa-usb list' "
                "what is supported; 'vexa-usb-sim --attach' simulates one.");
}

using Identifiers = std::pair<uint16_t, uint16_t>;

std::map<Identifiers, std::vector<UsbDevice>> attachedByIdentifiers() {
    std::map<Identifiers, std::vector<UsbDevice>> groups;
    for (UsbDevice &device : attachedDevices())
        groups[{device.vendor, device.product}].push_back(std::move(device));
    return groups;
}

} // namespace

std::string identifierText(uint16_t vendor, uint16_t product) {
    return fmt::format("{:04x}:{:04x}", vendor, product);
}

const char *kindText(uint16_t vendor, uint16_t product) {
    const auto *const supported = vexausb::findSupportedDevice(vendor, product);
    return supported != nullptr ? supported->kind : "unknown kind";
}

/*
 * The library does not say where on the bus a device is. The ids of equal devices are therefore
 * assigned to their places from the last place to the first, the order in which libusb usually
 * lists devices. Device checks after opening that it has the right one.
 */
DeviceList::DeviceList() {
    check(vexa_usb_update_device_list(), "reading the device list");
    uint64_t count = 0;
    check(vexa_usb_get_device_list(&list_, &count), "reading the device list");
    auto groups = attachedByIdentifiers();
    for (uint64_t i = 0; i < count; ++i) {
        auto &group = groups[{list_[i]->vendor_id, list_[i]->product_id}];
        devices_.push_back({list_[i], std::nullopt});
        if (group.empty())
            continue;
        devices_.back().attached = std::move(group.back());
        group.pop_back();
    }
}

const ListedDevice &DeviceList::choose(const DeviceChoice &choice) const {
    DeviceChoice wanted = choice;
    wanted.device = normalised(choice.device);
    std::vector<const ListedDevice *> found;
    for (const ListedDevice &listed : devices_) {
        if (matches(listed, wanted))
            found.push_back(&listed);
    }
    if (found.size() > 1)
        throwSeveral(found);
    if (found.empty())
        throwNone(choice);
    return *found.front();
}

} // namespace tool
