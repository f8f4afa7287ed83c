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

// Each defines the options of its command. The command runs after it has been parsed, and throws an
// Error when it fails.
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

// Adds a command whose options are defined only when it is named: the others cost no time.
void addCommand(CLI::App &app, const char *name, const char *help,
                std::function<void(CLI::App &)> define);

// --device, --serial and --path. With a `position`, the device can also be a positional argument.
void addDeviceOptions(CLI::App &command, CommonOptions &common, const std::string &position = {});
// --serial and --path alone.
void addPlaceOptions(CLI::App &command, CommonOptions &common);
void addJsonOption(CLI::App &command, CommonOptions &common);
void addVerboseOption(CLI::App &command, CommonOptions &common);

} // namespace tool
