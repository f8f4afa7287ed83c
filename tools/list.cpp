#include <memory>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "commands.h"
#include "device.h"

namespace tool {

namespace {

void list(const CommonOptions &common) {
    const Library library;
    const DeviceList devices;
    nlohmann::json rows = nlohmann::json::array();
    for (const _vexa_usb_device_list_item *item : devices.items()) {
        const char *const kind = kindText(item->vendor_id, item->product_id);
        const std::string identifier = identifierText(item->vendor_id, item->product_id);
        if (common.json)
            rows.push_back({{"id", item->id},
                            {"vendor", item->vendor_id},
                            {"product", item->product_id},
                            {"kind", kind}});
        else
            fmt::print("{:>3}  {}  {}\n", item->id, identifier, kind);
    }
    if (common.json)
        fmt::print("{}\n", rows.dump(2));
    else if (devices.items().empty())
        fmt::print(stderr, "no supported device is attached\n");
}

} // namespace

void defineListCommand(CLI::App &command, CommonOptions &common) {
    command.footer("Prints a line for each device: its id, VENDOR:PRODUCT and what it is.\n"
                   "--device takes either of the first two.");
    addJsonOption(command, common);
    command.callback([&common]() { list(common); });
}

} // namespace tool
