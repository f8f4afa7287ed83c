#pragma once

#include <string>

namespace CLI {
class App;
}

namespace tool {

// What every command takes.
struct CommonOptions {
    std::string device; // empty: the only one
    bool json = false;
    bool progress = false;
};

// Each adds its command to the program; the command runs when it was parsed, and throws an Error
// when it fails.
void addListCommand(CLI::App &app, CommonOptions &common);
void addInfoCommand(CLI::App &app, CommonOptions &common);
void addControlCommand(CLI::App &app, CommonOptions &common);
void addReadCommand(CLI::App &app, CommonOptions &common);
void addWriteCommand(CLI::App &app, CommonOptions &common);
void addStreamCommand(CLI::App &app, CommonOptions &common);
void addWatchCommand(CLI::App &app, CommonOptions &common);
void addEventsCommand(CLI::App &app, CommonOptions &common);
void addLoadCommand(CLI::App &app, CommonOptions &common);
void addHexCommand(CLI::App &app, CommonOptions &common);

void addDeviceOption(CLI::App &command, CommonOptions &common);
void addJsonOption(CLI::App &command, CommonOptions &common);

} // namespace tool
