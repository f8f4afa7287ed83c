#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "device_list.h"

namespace CLI {
class App;
}

namespace tool {

// What every command takes.
struct CommonOptions {
    DeviceChoice device;
    bool json = false;
    int64_t verbosity = 0; // how often --verbose was given
    bool progress = false;
};

// Each defines its command's options; the command runs when it was parsed, and throws an Error when
// it fails.
void defineListCommand(CLI::App &command, CommonOptions &common);
void defineInfoCommand(CLI::App &command, CommonOptions &common);
void defineControlCommand(CLI::App &command, CommonOptions &common);
void defineReadCommand(CLI::App &command, CommonOptions &common);
void defineWriteCommand(CLI::App &command, CommonOptions &common);
void defineStreamCommand(CLI::App &command, CommonOptions &common);
void defineWatchCommand(CLI::App &command, CommonOptions &common);
void defineEventsCommand(CLI::App &command, CommonOptions &common);
void defineLoadCommand(CLI::App &command, CommonOptions &common);
void defineHexCommand(CLI::App &command, CommonOptions &common);
void defineDoctorCommand(CLI::App &command, CommonOptions &common);

// Adds a command that is defined only once it has been named, so that the others cost nothing.
void addCommand(CLI::App &app, const char *name, const char *help,
                std::function<void(CLI::App &)> define);

// The options that choose a device; with a name for its position, it can also be given without.
void addDeviceOptions(CLI::App &command, CommonOptions &common, const std::string &position = {});
// --serial and --path alone.
void addPlaceOptions(CLI::App &command, CommonOptions &common);
void addJsonOption(CLI::App &command, CommonOptions &common);
void addVerboseOption(CLI::App &command, CommonOptions &common);

} // namespace tool
