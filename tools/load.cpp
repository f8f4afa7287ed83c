// The command load: boots a device from a file.
#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "amounts.h"
#include "bytes.h"
#include "commands.h"
#include "device.h"
#include "dfu_file.h"
#include "errors.h"
#include "fx2_records.h"
#include "fx3_file.h"
#include "imx7_file.h"
#include "list_changes.h"
#include "progress.h"
#include "stall_guard.h"
#include "stop_condition.h"

namespace tool {

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

// The library's loads cannot be stopped between two blocks.
constexpr const char *kLoadGoesOn =
    "\nvexa-usb: this ends once the load is complete; a second Ctrl-C ends it now, and leaves the "
    "device with half a firmware:\n  plug it in again then, before the next load\n";

struct LoadOptions {
    std::string file;
    double wait = 10;
    double timeout = 300;
    bool renumerate = false;
    bool force = false;
};

// A firmware in memory, and the function that loads it.
struct Firmware {
    uint64_t size;
    std::function<int32_t(_vexa_usb_device *)> load;
    const char *stayHint = ""; // why the device may not come back
};

// The firmware needs a moment before it answers requests.
int32_t renumerate(_vexa_usb_device *device) {
    constexpr int kAttempts = 20;
    constexpr std::chrono::milliseconds kPause{50};
    int32_t status = VEXA_USB_STATUS_UNKNOWN;
    for (int i = 0; i < kAttempts && status == VEXA_USB_STATUS_UNKNOWN; ++i) {
        std::this_thread::sleep_for(kPause);
        status = vexa_usb_fx2_renumerate(device);
    }
    const bool left = status == VEXA_USB_STATUS_DEVICE_REMOVED; // it left before it answered
    return left ? VEXA_USB_STATUS_SUCCESS : status;
}

Firmware fx2Firmware(const LoadOptions &options, const CommonOptions & /*common*/) {
    const auto image = std::make_shared<Bytes>(readFx2Image(options.file));
    const auto loadImage = [image, again = options.renumerate](_vexa_usb_device *device) {
        const int32_t status = vexa_usb_fx2_load_firmware(device, image->data(), image->size());
        if (status == VEXA_USB_STATUS_SUCCESS && again)
            check(renumerate(device), "loaded, but asking it to renumerate failed");
        return status;
    };
    return {image->size(), loadImage,
            options.renumerate ? "" : " Its firmware may wait to be told so (--renumerate)."};
}

Firmware fx3Firmware(const LoadOptions &options, const CommonOptions & /*common*/) {
    const auto image = std::make_shared<std::vector<uint32_t>>(readFx3Image(options.file));
    return {image->size() * sizeof(uint32_t), [image](_vexa_usb_device *device) {
                return vexa_usb_fx3_load_firmware(device, image->data(), image->size());
            }};
}

int32_t dfuRequest(_vexa_usb_device *device, int32_t direction, uint8_t request, uint8_t *data,
                   uint64_t size) {
    return vexa_usb_control_transfer(device, direction, VEXA_USB_TYPE_CLASS,
                                     VEXA_USB_RECIPIENT_INTERFACE, request, 0, 0, data, size);
}

// Ends an earlier download that failed. Errors are ignored: the load itself will report them.
void makeDfuIdle(_vexa_usb_device *device) {
    constexpr uint8_t kGetStatus = 3;
    constexpr uint8_t kClearStatus = 4;
    constexpr uint8_t kAbort = 6;
    constexpr uint8_t kIdle = 2;
    constexpr uint8_t kError = 10;
    std::array<uint8_t, 6> status{};
    if (dfuRequest(device, VEXA_USB_DIRECTION_IN, kGetStatus, status.data(), status.size()) !=
            VEXA_USB_STATUS_SUCCESS ||
        status[4] == kIdle)
        return;
    if (status[4] == kError ||
        dfuRequest(device, VEXA_USB_DIRECTION_OUT, kAbort, nullptr, 0) != VEXA_USB_STATUS_SUCCESS)
        dfuRequest(device, VEXA_USB_DIRECTION_OUT, kClearStatus, nullptr, 0);
}

// A device has different identifiers in DFU mode and outside it, and a file may name either. Only
// the user knows which are meant.
void refuseIfForAnother(const DfuFile &file, _vexa_usb_device *device) {
    _vexa_usb_device_descriptor descriptor{};
    check(vexa_usb_get_device_descriptor(device, &descriptor, sizeof(descriptor)),
          "reading the device descriptor");
    if (!file.isFor(descriptor.idVendor, descriptor.idProduct))
        throw Error(Exit::DataWrong,
                    fmt::format("the file is for {}, and the device is {}",
                                identifierText(file.vendor, file.product),
                                identifierText(descriptor.idVendor, descriptor.idProduct)),
                    "Nothing was sent. If it is right all the same, load it with --force.");
}

int32_t downloadDfu(_vexa_usb_device *device, const Bytes &image, Progress::Form form,
                    const LoadOptions &options) {
    makeDfuIdle(device);
    Progress progress(form, {image.size(), std::nullopt});
    StallGuard guard(Seconds(options.timeout),
                     fmt::format("loading {}: the device has been busy with one block for {} s",
                                 options.file, options.timeout),
                     "It has half a firmware: plug it in again. If it needs that long, --timeout "
                     "gives it more.");
    struct Shown {
        Progress &progress;
        StallGuard &guard;
        double size;
    } shown{progress, guard, static_cast<double>(image.size())};
    return vexa_usb_dfu_download(
        device, image.data(), image.size(),
        [](void *data, double done) {
            const auto &to = *static_cast<Shown *>(data);
            to.progress.update(static_cast<uint64_t>(done * to.size));
            to.guard.noteProgress();
        },
        &shown);
}

Firmware dfuFirmware(const LoadOptions &options, const CommonOptions &common) {
    const auto file = std::make_shared<DfuFile>(readDfuFile(options.file));
    return {file->image.size(),
            [file, options,
             form = Progress::formFor(common.progress, common.json)](_vexa_usb_device *device) {
                if (!options.force)
                    refuseIfForAnother(*file, device);
                return downloadDfu(device, file->image, form, options);
            }};
}

Firmware imx7Firmware(Bytes bytes, int32_t (*load)(_vexa_usb_device *, const uint8_t *, uint64_t)) {
    const auto image = std::make_shared<Bytes>(std::move(bytes));
    return {image->size(), [image, load](_vexa_usb_device *device) {
                return load(device, image->data(), image->size());
            }};
}

Firmware splFirmware(const LoadOptions &options, const CommonOptions & /*common*/) {
    return imx7Firmware(readSplImage(options.file), vexa_usb_imx7_load_firmware_spl);
}

Firmware ubootFirmware(const LoadOptions &options, const CommonOptions & /*common*/) {
    return imx7Firmware(readUbootImage(options.file), vexa_usb_imx7_load_firmware_uboot);
}

// The first device that arrives after the loaded one has left; nothing when the time is over.
std::optional<ListChange> waitForReturn(ListChanges &changes, uint64_t id, Seconds atMost) {
    const Clock::time_point begin = Clock::now();
    bool left = false;
    while (Clock::now() - begin < atMost && !interrupted()) {
        const auto change = changes.wait(kWaitStep);
        if (!change)
            continue;
        if (change->type == VEXA_USB_DEVICE_LIST_EVENT_REMOVED)
            left = left || change->id == id;
        else if (left)
            return change;
    }
    return std::nullopt;
}

void report(uint64_t size, Seconds time, const std::optional<ListChange> &now, bool json) {
    if (json) {
        nlohmann::json result{{"bytes", size}, {"seconds", time.count()}};
        if (now)
            result["device"] = {{"id", now->id},
                                {"vendor", now->vendor},
                                {"product", now->product},
                                {"kind", kindText(now->vendor, now->product)}};
        fmt::print("{}\n", result.dump());
        return;
    }
    fmt::print("loaded {} in {:.2f} s\n", sizeText(size), time.count());
    if (now)
        fmt::print("it is device {} now: {}  {}\n", now->id,
                   identifierText(now->vendor, now->product), kindText(now->vendor, now->product));
}

struct Loaded {
    uint64_t id; // that the device had
    Seconds time;
};

Loaded loadDevice(const LoadOptions &options, const CommonOptions &common,
                  const Firmware &firmware) {
    const Device device(common.device);
    const InterruptNotice notice(kLoadGoesOn);
    if (interrupted())
        throw Error(Exit::Failed, "interrupted before the load; nothing was sent");
    const Clock::time_point begin = Clock::now();
    const int32_t status = firmware.load(device.get());
    if (status != VEXA_USB_STATUS_SUCCESS)
        throw Error(exitFor(status),
                    fmt::format("loading {}: {} ({})", options.file,
                                vexa_usb_get_status_str(status), status),
                    "Check that it is the firmware for this device, which 'vexa-usb list' shows; "
                    "plug the device in again if the next load fails, too.");
    return {device.id(), Clock::now() - begin};
}

ListChange requireReturn(ListChanges &changes, uint64_t id, const LoadOptions &options,
                         const Firmware &firmware) {
    const auto now = waitForReturn(changes, id, Seconds(options.wait));
    if (interrupted())
        throw Error(Exit::Failed, "loaded, but interrupted before the device came back",
                    "'vexa-usb list' shows whether it has.");
    if (!now)
        throw Error(
            Exit::Timeout,
            fmt::format("loaded, but no supported device has come back within {} s", options.wait),
            fmt::format("'lsusb' shows what the device is now.{} --wait 0 does not wait.",
                        firmware.stayHint));
    return *now;
}

void load(const LoadOptions &options, const CommonOptions &common, const Firmware &firmware) {
    const Library library;
    catchInterrupts();
    std::optional<ListChanges> changes; // from before the load, so that none is missed
    if (options.wait > 0)
        changes.emplace();
    const Loaded loaded = loadDevice(options, common, firmware);
    std::optional<ListChange> now;
    if (changes)
        now = requireReturn(*changes, loaded.id, options, firmware);
    report(firmware.size, loaded.time, now, common.json);
}

struct LoadKind {
    const char *name;
    const char *help;
    Firmware (*read)(const LoadOptions &, const CommonOptions &);
};

constexpr std::array kKinds{
    LoadKind{"fx2", "Cypress EZ-USB FX2, from an Intel HEX file", fx2Firmware},
    LoadKind{"fx3", "Cypress FX3, from a boot image", fx3Firmware},
    LoadKind{"dfu", "Device in DFU mode, from a binary file, with or without a DFU suffix",
             dfuFirmware},
    LoadKind{"spl", "NXP i.MX7, the first loader, from a file with an image vector table",
             splFirmware},
    LoadKind{"uboot", "NXP i.MX7 that runs the first loader, from a U-Boot image", ubootFirmware},
};

void defineKind(CLI::App &command, const LoadKind &kind, CommonOptions &common) {
    const auto options = std::make_shared<LoadOptions>();
    command.add_option("DEVICE", common.device.device, "The device: its id or VENDOR:PRODUCT")
        ->required();
    addPlaceOptions(command, common);
    command.add_option("FILE", options->file, "The firmware; - is standard input")->required();
    command
        .add_option("-w,--wait", options->wait,
                    "Wait at most N seconds for the device to come back; 0: not at all")
        ->check(notNegative())
        ->capture_default_str();
    if (kind.read == fx2Firmware)
        command.add_flag("--renumerate", options->renumerate,
                         "Tell the firmware to leave the bus and come back");
    if (kind.read == dfuFirmware) {
        command.add_flag("--progress", common.progress,
                         "Show the progress also when not on a terminal, in a line a second; "
                         "with --json, each an object on standard error");
        command
            .add_option("--timeout", options->timeout,
                        "Give up when the device is busy with one block for N seconds; 0: never")
            ->check(notNegative())
            ->capture_default_str();
        command.add_flag("--force", options->force,
                         "Load it although the file's DFU suffix names another device");
    }
    addJsonOption(command, common);
    addVerboseOption(command, common);
    command.callback(
        [&common, options, &kind]() { load(*options, common, kind.read(*options, common)); });
}

} // namespace

void defineLoadCommand(CLI::App &command, CommonOptions &common) {
    command.require_subcommand(1);
    addJsonOption(command, common);
    command.footer("Checks the file, loads it, waits until the device has come back under its new "
                   "identity,\nand says which.\n\n"
                   "Examples:\n"
                   "  vexa-usb load fx2 04b4:8613 firmware.hex\n"
                   "  vexa-usb load dfu 5658:0df0 firmware.dfu");
    for (const LoadKind &kind : kKinds) {
        addCommand(command, kind.name, kind.help,
                   [&common, &kind](CLI::App &named) { defineKind(named, kind, common); });
    }
}

} // namespace tool
