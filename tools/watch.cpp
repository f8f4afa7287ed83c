// The commands that tell what happens: watch and events.
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "amounts.h"
#include "commands.h"
#include "device.h"
#include "errors.h"
#include "list_changes.h"
#include "mailbox.h"
#include "output.h"
#include "stop_condition.h"

namespace tool {

namespace {

// Not buffered, so that a reader gets each line at once.
void printLine(Output &output, std::string line) {
    line += '\n';
    output.write(std::span(reinterpret_cast<const uint8_t *>(line.data()), line.size()));
}

void print(Output &output, const ListChange &change, bool json) {
    const char *const what = change.type == VEXA_USB_DEVICE_LIST_EVENT_ADDED ? "added" : "removed";
    const char *const kind = kindText(change.vendor, change.product);
    if (json)
        printLine(output, nlohmann::json{{"change", what},
                                         {"id", change.id},
                                         {"vendor", change.vendor},
                                         {"product", change.product},
                                         {"kind", kind}}
                              .dump());
    else
        printLine(output, fmt::format("{:<8} {:>3}  {}  {}", what, change.id,
                                      identifierText(change.vendor, change.product), kind));
}

// Devices that are attached already count as added.
void watch(const CommonOptions &common, StopCondition &stop) {
    Output output("-");
    const Library library;
    ListChanges changes;
    stop.start();
    for (uint64_t lines = 0; !stop.reached(lines);) {
        const auto change = changes.wait(kWaitStep);
        if (!change) {
            output.throwIfUnread();
            continue;
        }
        print(output, *change, common.json);
        ++lines;
    }
}

void events(const CommonOptions &common, uint8_t endpoint, StopCondition &stop) {
    Output output("-");
    const auto mailbox = std::make_shared<Mailbox<_vexa_usb_device_event>>();
    const Library library;
    const Device device(common.device,
                        [mailbox](_vexa_usb_device_event event) { mailbox->post(event); });
    check(vexa_usb_event_pipe_enable(device.get(), endpoint),
          fmt::format("listening to endpoint {:#04x}", endpoint));
    stop.start();
    for (uint64_t lines = 0; !stop.reached(lines);) {
        const auto event = mailbox->wait(kWaitStep);
        if (!event) {
            output.throwIfUnread();
            continue;
        }
        if (*event == VEXA_USB_DEVICE_EVENT_REMOVED)
            check(VEXA_USB_STATUS_DEVICE_REMOVED, "listening");
        printLine(output, common.json ? nlohmann::json{{"event", *event}}.dump()
                                      : fmt::format("{:#04x}", *event));
        ++lines;
    }
    vexa_usb_event_pipe_disable(device.get()); // the device may have left after the last line
}

} // namespace

void defineWatchCommand(CLI::App &command, CommonOptions &common) {
    const auto stop = std::make_shared<StopCondition>();
    stop->addOptions(command);
    addJsonOption(command, common);
    command.footer("Prints a line for each supported device that comes or goes, those that are\n"
                   "there already first; with --json an object a line. Ctrl-C ends it, and so "
                   "does the end of its\nreader, with exit status 1.\n\n"
                   "Examples:\n"
                   "  vexa-usb watch\n"
                   "  vexa-usb watch --json --count 1 | jq .id");
    command.callback([&common, stop]() { watch(common, *stop); });
}

void defineEventsCommand(CLI::App &command, CommonOptions &common) {
    const auto endpoint = std::make_shared<uint8_t>(uint8_t{0x81});
    const auto stop = std::make_shared<StopCondition>();
    addDeviceOptions(command, common, "DEVICE");
    command.add_option("-e,--endpoint", *endpoint, "Endpoint address")
        ->default_str("0x81")
        ->transform(upTo(0xFF));
    stop->addOptions(command);
    addJsonOption(command, common);
    command.footer("Prints a line for each byte, as it comes; with --json an object a line. Ctrl-C "
                   "ends it,\nand so does the end of its reader, with exit status 1.\n\n"
                   "Examples:\n"
                   "  vexa-usb events\n"
                   "  vexa-usb events 5658:0001 --endpoint 0x81 --count 10");
    command.callback([&common, endpoint, stop]() { events(common, *endpoint, *stop); });
}

} // namespace tool
