#include <algorithm>
#include <cstddef>
#include <string>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "commands.h"
#include "device.h"
#include "device_json.h"

namespace tool {

namespace {

// How wide the columns have to be.
struct Widths {
    size_t kind = 0;
    size_t place = 0;

    explicit Widths(const DeviceList &list) {
        for (const ListedDevice &listed : list.devices()) {
            kind = std::max(
                kind,
                std::string(kindText(listed.item->vendor_id, listed.item->product_id)).size());
            place = std::max(place, listed.attached ? listed.attached->busPath.size() : 0);
        }
    }
};

void print(const ListedDevice &listed, const Widths &widths) {
    std::string line =
        fmt::format("{:>3}  {}  {:<{}}", listed.item->id,
                    identifierText(listed.item->vendor_id, listed.item->product_id),
                    kindText(listed.item->vendor_id, listed.item->product_id), widths.kind);
    if (listed.attached) {
        const UsbDevice &device = *listed.attached;
        line += fmt::format("  at {:<{}}  {}", device.busPath, widths.place, device.name());
        if (!device.serial.empty())
            line += fmt::format(", serial {}", device.serial);
    }
    fmt::print("{}\n", line);
}

void list(const CommonOptions &common) {
    const Library library;
    const DeviceList list;
    const Widths widths(list);
    nlohmann::json rows = nlohmann::json::array();
    for (const ListedDevice &listed : list.devices()) {
        if (common.json)
            rows.push_back(deviceJson(listed));
        else
            print(listed, widths);
    }
    if (common.json)
        fmt::print("{}\n", rows.dump(2, ' ', false, kReplaceWrongText));
    else if (list.devices().empty())
        fmt::print(stderr, "no supported device is attached\n");
}

} // namespace

void defineListCommand(CLI::App &command, CommonOptions &common) {
    command.footer(
        "Prints a line for each device: its id, VENDOR:PRODUCT, what it is, its place on "
        "the bus, maker,\nproduct and serial number. --device takes either of the first "
        "two; --path and --serial\nchoose among equal devices.");
    addJsonOption(command, common);
    command.callback([&common]() { list(common); });
}

} // namespace tool
