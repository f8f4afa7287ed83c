// The command doctor: checks what keeps this user from working with the devices.
#include <algorithm>
#include <iterator>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <libusb.h>
#include <nlohmann/json.hpp>
#include <sys/utsname.h>

#include "commands.h"
#include "device_checks.h"
#include "device_json.h"
#include "errors.h"
#include "finding.h"
#include "usb_device.h"
#include "vexa_usb.h"

namespace tool {

namespace {

using Json = nlohmann::json;

// The findings about one device, or about the machine.
struct Group {
    Json about;
    std::string title;
    std::vector<Finding> findings;
};

Json versions() {
    utsname system{};
    uname(&system);
    const libusb_version &usb = *libusb_get_version();
    const _vexa_usb_version &own = *vexa_usb_get_version();
    return {{"kernel", system.release},
            {"libusb", fmt::format("{}.{}.{}", usb.major, usb.minor, usb.micro)},
            {"library", fmt::format("{}.{}.{}", own.major, own.minor, own.patch)}};
}

Finding checkPresence(const std::vector<UsbDevice> &devices) {
    if (!devices.empty())
        return {"devices", fmt::format("{} supported on the bus", devices.size())};
    return {"devices", "no supported device is on the bus",
            "lsusb   # shows what is; plug it in, switch it on, try another cable or port; "
            "'sudo vexa-usb-sim --attach' simulates one",
            Exit::NoDevice};
}

std::vector<Group> examine() {
    const std::vector<UsbDevice> devices = attachedDevices();
    std::vector<Group> groups{
        {nullptr, "this machine", {checkPresence(devices), checkMemory(devices)}}};
    for (const UsbDevice &device : devices)
        groups.push_back({attachedJson(device),
                          fmt::format("{} at {}, {}", identifierText(device.vendor, device.product),
                                      device.busPath, device.name()),
                          {checkPermission(device), checkInterface(device), checkHolder(device),
                           checkSpeed(device), checkPower(device)}});
    return groups;
}

void print(const std::vector<Group> &groups) {
    const Json version = versions();
    fmt::print("kernel {}, libusb {}, libvexa-usb {}\n", version["kernel"].get<std::string>(),
               version["libusb"].get<std::string>(), version["library"].get<std::string>());
    for (const Group &group : groups) {
        fmt::print("{}\n", group.title);
        for (const Finding &found : group.findings) {
            fmt::print("  {:<4}  {:<10}  {}\n", found.isFine() ? "ok" : "BAD", found.subject,
                       found.text);
            if (!found.isFine())
                fmt::print("        mend it:    {}\n", found.remedy);
        }
    }
}

Json jsonOf(const std::vector<Group> &groups, bool isFine) {
    Json findings = Json::array();
    for (const Group &group : groups) {
        for (const Finding &found : group.findings)
            findings.push_back({{"subject", found.subject},
                                {"device", group.about},
                                {"ok", found.isFine()},
                                {"text", found.text},
                                {"remedy", found.remedy}});
    }
    return {{"ok", isFine}, {"versions", versions()}, {"findings", findings}};
}

void doctor(const CommonOptions &common) {
    const std::vector<Group> groups = examine();
    std::vector<Finding> bad;
    for (const Group &group : groups)
        std::copy_if(group.findings.begin(), group.findings.end(), std::back_inserter(bad),
                     [](const Finding &found) { return !found.isFine(); });
    if (common.json)
        fmt::print("{}\n", jsonOf(groups, bad.empty()).dump(2, ' ', false, kReplaceWrongText));
    else
        print(groups);
    if (!bad.empty())
        throw Error(bad.front().exit, fmt::format("{} {} in the way", bad.size(),
                                                  bad.size() == 1 ? "thing is" : "things are"));
}

} // namespace

void defineDoctorCommand(CLI::App &command, CommonOptions &common) {
    addJsonOption(command, common);
    command.footer(
        "Looks at every supported device that is attached: whether this user may open it, "
        "who else uses it,\nits speed, power management, the kernel's memory for "
        "transfers; nothing is opened for use. Each line that\nsays BAD is followed by "
        "what mends it. Ends with status 0 only when nothing is in the way.");
    command.callback([&common]() { doctor(common); });
}

} // namespace tool
