// The commands that do a single transfer: control, read, write.
#include <map>
#include <memory>
#include <string>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "amounts.h"
#include "bytes.h"
#include "commands.h"
#include "device.h"
#include "errors.h"
#include "hex_text.h"
#include "input.h"
#include "output.h"
#include "words.h"

namespace tool {

namespace {

struct TransferOptions {
    uint8_t endpoint = 0;
    bool interrupt = false;
    uint64_t length = 0;
    std::string data;
    std::string input;
    std::string output;
    int32_t type = VEXA_USB_TYPE_VENDOR;
    int32_t recipient = VEXA_USB_RECIPIENT_DEVICE;
    uint8_t request = 0;
    uint16_t value = 0;
    uint16_t index = 0;
    bool in = false;
};

const std::map<std::string, int32_t> requestTypes{{"standard", VEXA_USB_TYPE_STANDARD},
                                                  {"class", VEXA_USB_TYPE_CLASS},
                                                  {"vendor", VEXA_USB_TYPE_VENDOR}};
const std::map<std::string, int32_t> recipients{{"device", VEXA_USB_RECIPIENT_DEVICE},
                                                {"interface", VEXA_USB_RECIPIENT_INTERFACE},
                                                {"endpoint", VEXA_USB_RECIPIENT_ENDPOINT},
                                                {"other", VEXA_USB_RECIPIENT_OTHER}};

Bytes dataToSend(const TransferOptions &options) {
    return options.input.empty() ? parseHex(options.data) : readInput(options.input);
}

// Opened before the transfer, because data that a device has sent cannot be read again. An existing
// file is replaced only after the transfer has succeeded.
std::unique_ptr<Output> openOutput(const TransferOptions &options) {
    if (options.output.empty())
        return nullptr;
    return std::make_unique<Output>(options.output, Output::Existing::Replace);
}

void showRead(const TransferOptions &options, const CommonOptions &common, const Bytes &bytes,
              Output *output) {
    if (output) {
        output->write(bytes);
        output->close();
    } else if (!common.json) {
        printHexDump(bytes);
    }
    if (common.json && options.output != "-") {
        nlohmann::json result{{"bytes", bytes.size()}};
        if (options.output.empty())
            result["data"] = hexText(bytes);
        fmt::print("{}\n", result.dump());
    }
}

void showWritten(const CommonOptions &common, size_t count) {
    if (common.json)
        fmt::print("{}\n", nlohmann::json{{"bytes", count}}.dump());
}

void control(const TransferOptions &options, const CommonOptions &common) {
    Bytes bytes = options.in ? Bytes(options.length) : dataToSend(options);
    const Library library;
    const Device device(common.device);
    const auto output = options.in ? openOutput(options) : nullptr;
    const int32_t direction = options.in ? VEXA_USB_DIRECTION_IN : VEXA_USB_DIRECTION_OUT;
    check(vexa_usb_control_transfer(device.get(), direction, options.type, options.recipient,
                                    options.request, options.value, options.index, bytes.data(),
                                    bytes.size()),
          "control transfer");
    if (options.in)
        showRead(options, common, bytes, output.get());
    else
        showWritten(common, bytes.size());
}

void read(const TransferOptions &options, const CommonOptions &common) {
    const Library library;
    const Device device(common.device);
    Bytes bytes(options.length);
    const auto output = openOutput(options);
    const auto transfer = options.interrupt ? vexa_usb_interrupt_read : vexa_usb_bulk_read;
    check(transfer(device.get(), options.endpoint, bytes.data(), bytes.size()),
          fmt::format("reading endpoint {:#04x}", options.endpoint));
    showRead(options, common, bytes, output.get());
}

void write(const TransferOptions &options, const CommonOptions &common) {
    const Bytes bytes = dataToSend(options);
    if (bytes.empty())
        throw Error(Exit::Usage, "there is nothing to write", "Give --data HEX or a FILE.");
    const Library library;
    const Device device(common.device);
    const auto transfer = options.interrupt ? vexa_usb_interrupt_write : vexa_usb_bulk_write;
    check(transfer(device.get(), options.endpoint, bytes.data(), bytes.size()),
          fmt::format("writing endpoint {:#04x}", options.endpoint));
    showWritten(common, bytes.size());
}

void addDataOptions(CLI::App &command, TransferOptions &options) {
    CLI::Option *data = command.add_option("--data", options.data, "Bytes in hexadecimal: 01ff3c");
    command
        .add_option("-i,--input", options.input, "Send what this file holds; - is standard input")
        ->excludes(data);
}

CLI::Option *addOutputOption(CLI::App &command, TransferOptions &options) {
    return command.add_option("-o,--output", options.output,
                              "Write the bytes to this file; - is standard output. Without it they "
                              "are shown in hexadecimal");
}

void addEndpointOptions(CLI::App &command, TransferOptions &options) {
    command.add_option("ENDPOINT", options.endpoint, "Endpoint address, for instance 0x83")
        ->required()
        ->transform(upTo(0xFF));
    command.add_flag("--interrupt", options.interrupt, "An interrupt endpoint, not a bulk one");
}

} // namespace

void defineControlCommand(CLI::App &command, CommonOptions &common) {
    const auto options = std::make_shared<TransferOptions>();
    command.add_option("REQUEST", options->request, "bRequest")->required()->transform(upTo(0xFF));
    command.add_option("VALUE", options->value, "wValue")->transform(upTo(0xFFFF));
    command.add_option("INDEX", options->index, "wIndex")->transform(upTo(0xFFFF));
    addDataOptions(command, *options);
    CLI::Option *length =
        command.add_option("--in", options->length, "Read N bytes; without it, write")
            ->check(CLI::Range(0, 65535))
            ->excludes("--data")
            ->excludes("--input");
    command.add_option("--type", options->type, "standard, class or vendor (the default)")
        ->transform(oneOf(requestTypes));
    command
        .add_option("--recipient", options->recipient,
                    "device (the default), interface, endpoint or other")
        ->transform(oneOf(recipients));
    addOutputOption(command, *options)->needs(length);
    addDeviceOptions(command, common);
    addJsonOption(command, common);
    command.footer("Examples:\n"
                   "  vexa-usb control 6 0x0100 --type standard --in 18    the device descriptor\n"
                   "  vexa-usb control 1 --data 0011ff                     a vendor request");
    command.callback([&common, options, length]() {
        options->in = !length->empty();
        control(*options, common);
    });
}

void defineReadCommand(CLI::App &command, CommonOptions &common) {
    const auto options = std::make_shared<TransferOptions>();
    addEndpointOptions(command, *options);
    command
        .add_option("LENGTH", options->length, "Number of bytes; units such as 64k are understood")
        ->required()
        ->transform(byteCountInMemory());
    addOutputOption(command, *options);
    addDeviceOptions(command, common);
    addJsonOption(command, common);
    command.callback([&common, options]() { read(*options, common); });
}

void defineWriteCommand(CLI::App &command, CommonOptions &common) {
    const auto options = std::make_shared<TransferOptions>();
    addEndpointOptions(command, *options);
    addDataOptions(command, *options);
    addDeviceOptions(command, common);
    addJsonOption(command, common);
    command.callback([&common, options]() { write(*options, common); });
}

} // namespace tool
