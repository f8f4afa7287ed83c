#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>

#include <fcntl.h>
#include <fmt/format.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include "device_checks.h"

namespace tool {

namespace {

namespace fs = std::filesystem;

constexpr const char *kRule = "70-vexa-usb.rules";
constexpr const char *kGroup = "plugdev";

std::string installedRule() {
    constexpr std::array kDirectories{"/etc/udev/rules.d", "/run/udev/rules.d",
                                      "/usr/local/lib/udev/rules.d", "/usr/lib/udev/rules.d",
                                      "/lib/udev/rules.d"};
    for (const char *directory : kDirectories) {
        std::error_code error;
        const fs::path path = fs::path(directory) / kRule;
        if (fs::exists(path, error))
            return path;
    }
    return {};
}

std::string groupName(gid_t id) {
    const group *const entry = getgrgid(id);
    return entry != nullptr ? entry->gr_name : std::to_string(id);
}

std::string userName() {
    const passwd *const entry = getpwuid(geteuid());
    return entry != nullptr ? entry->pw_name : std::to_string(geteuid());
}

bool isMember(gid_t id) {
    return id == getegid() || group_member(id) != 0;
}

// A session that is older than the membership in the group does not have it yet.
bool isListed() {
    const std::string name = userName();
    const group *const entry = getgrnam(kGroup);
    if (entry == nullptr)
        return false;
    for (char *const *member = entry->gr_mem; *member != nullptr; ++member) {
        if (name == *member)
            return true;
    }
    return false;
}

std::string whyAllowed(const struct stat &node) {
    constexpr mode_t kGroupMay = S_IRGRP | S_IWGRP;
    constexpr mode_t kAllMay = S_IROTH | S_IWOTH;
    if (geteuid() == 0)
        return "root may";
    if (geteuid() == node.st_uid)
        return "it belongs to this user";
    if ((node.st_mode & kGroupMay) == kGroupMay && isMember(node.st_gid))
        return fmt::format("by the group {}", groupName(node.st_gid));
    if ((node.st_mode & kAllMay) == kAllMay)
        return "everybody may";
    return "by being at the machine's seat";
}

std::string groupRemedy() {
    if (isListed())
        return fmt::format("Log in again: {} is in the group {}, but this session is older.",
                           userName(), kGroup);
    const char *const seat = std::getenv("XDG_SEAT");
    return fmt::format("sudo usermod -aG {} {}   # then log in again; {}", kGroup, userName(),
                       seat != nullptr ? "or make this the seat's active session"
                                       : "only a session at the machine's own seat needs no group");
}

// The rule sets the group of the node: any other group means that the rule was not applied.
Finding refused(const UsbDevice &device, const struct stat &node) {
    const std::string rule = installedRule();
    const std::string apply =
        fmt::format("sudo udevadm control --reload && sudo udevadm trigger --action=add "
                    "--attr-match=idVendor={:04x}",
                    device.vendor);
    const std::string is = fmt::format("no permission for {} ({}, mode {:o})", device.node,
                                       groupName(node.st_gid), node.st_mode & 0777U);
    if (rule.empty())
        return {"permission", fmt::format("{}: the udev rule {} is not installed", is, kRule),
                fmt::format("sudo apt install vexa-usb-common, or copy {} from the build to "
                            "/etc/udev/rules.d; then {}",
                            kRule, apply),
                Exit::CannotOpen};
    if (getgrnam(kGroup) == nullptr)
        return {
            "permission",
            fmt::format("{}: {} lets in the group {}, which does not exist", is, rule, kGroup),
            fmt::format("sudo groupadd --system {0} && sudo usermod -aG {0} {1} && {2}   # then "
                        "log in again",
                        kGroup, userName(), apply),
            Exit::CannotOpen};
    if (groupName(node.st_gid) != kGroup)
        return {"permission", fmt::format("{}: {} was not applied to it", is, rule), apply,
                Exit::CannotOpen};
    return {"permission",
            fmt::format("{}: {} lets in the group {} and who is at the seat", is, rule, kGroup),
            groupRemedy(), Exit::CannotOpen};
}

} // namespace

// Opens the node, since a container may forbid what the mode of the node allows.
Finding checkPermission(const UsbDevice &device) {
    struct stat node {};
    const bool isThere = stat(device.node.c_str(), &node) == 0;
    const int descriptor = open(device.node.c_str(), O_RDWR | O_CLOEXEC);
    if (descriptor >= 0) {
        close(descriptor);
        return {"permission",
                fmt::format("this user may open {}: {}", device.node, whyAllowed(node))};
    }
    if (isThere && errno == EACCES)
        return refused(device, node);
    return {"permission", fmt::format("{}: {}", device.node, std::strerror(errno)),
            "Plug the device in again; a container needs /dev/bus/usb and the right to use it.",
            Exit::CannotOpen};
}

} // namespace tool
