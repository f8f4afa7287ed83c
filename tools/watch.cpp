// The commands that tell what happens: watch and events.
#include <cstdio>
#include <memory>
#include <string>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "changes.h"
#include "commands.h"
#include "device.h"
#include "ending.h"
#include "errors.h"
#include "mailbox.h"

namespace tool {

namespace {

// Flushed at once: the reader hears in time, and a reader that has gone is noticed.
void printLine(const std::string &line) {
    fmt::print("{}\n", line);
    if (std::fflush(stdout) != 0)
        throwSystemError("cannot write standard output");
}

void print(const ListChange &change, bool json) {
    const char *const what = change.type == VEXA_USB_DEVICE_LIST_EVENT_ADDED ? "added" : "removed";
    const char *const kind = kindText(change.vendor, change.product);
    if (json)
        printLine(nlohmann::json{
            {"change", what},
            {"id", change.id},
            {"vendor", change.vendor},
            {"product", change.product},
            {"kind",
             kind}}.dump());
    else
        printLine(fmt::format("{:<8} {:>3}  {}  {}", what, change.id,
                              identifierText(change.vendor, change.product), kind));
}

// Devices that are attached already count as added.
void watch(const CommonOptions &common, Ending &ending) {
    const Library library;
    ListChanges changes;
    ending.start();
    for (uint64_t lines = 0; !ending.reached(lines);) {
        if (const auto change = changes.wait(kWaitStep)) {
            print(*change, common.json);
            ++lines;
        }
    }
}

void events(const CommonOptions &common, uint8_t endpoint, Ending &ending) {
    const auto mailbox = std::make_shared<Mailbox<_vexa_usb_device_event>>();
    const Library library;
    const Device device(common.device,
                        [mailbox](_vexa_usb_device_event event) { mailbox->post(event); });
    check(vexa_usb_event_pipe_enable(device.get(), endpoint),
          fmt::format("listening to endpoint {:#04x}", endpoint));
    ending.start();
    for (uint64_t lines = 0; !ending.reached(lines);) {
        const auto event = mailbox->wait(kWaitStep);
        if (!event)
            continue;
        if (*event == VEXA_USB_DEVICE_EVENT_REMOVED)
            check(VEXA_USB_STATUS_DEVICE_REMOVED, "listening");
        printLine(common.json ? nlohmann::json{{"event", *event}}.dump()
                              : fmt::format("{:#04x}", *event));
        ++lines;
    }
    vexa_usb_event_pipe_disable(device.get()); // the device may have left after the last line
}

} // namespace

void defineWatchCommand(CLI::App &command, CommonOptions &common) {
    const auto ending = std::make_shared<Ending>();
    ending->addOptions(command);
    addJsonOption(command, common);
    command.footer("Prints a line for each supported device that comes or goes, those that are\n"
                   "there already first; with --json an object a line. Ctrl-C ends it.\n\n"
                   "Examples:\n"
                   "  vexa-usb watch\n"
                   "  vexa-usb watch --json --count 1 | jq .id");
    command.callback([&common, ending]() { watch(common, *ending); });
}

void defineEventsCommand(CLI::App &command, CommonOptions &common) {
    const auto endpoint = std::make_shared<uint8_t>(uint8_t{0x81});
    const auto ending = std::make_shared<Ending>();
    addDeviceOption(command, common, "DEVICE");
    command.add_option("-e,--endpoint", *endpoint, "Endpoint address")->default_str("0x81");
    ending->addOptions(command);
    addJsonOption(command, common);
    command.footer("Prints a line for each byte, as it comes; with --json an object a line. Ctrl-C "
                   "ends it.\n\n"
                   "Examples:\n"
                   "  vexa-usb events\n"
                   "  vexa-usb events 5658:0001 --endpoint 0x81 --count 10");
    command.callback([&common, endpoint, ending]() { events(common, *endpoint, *ending); });
}

} // namespace tool
