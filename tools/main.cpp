// vexa-usb: the library's services as a command.
#include <csignal>
#include <cstdio>
#include <exception>
#include <string>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "commands.h"
#include "errors.h"
#include "vexa_usb.h"

namespace tool {

void addDeviceOption(CLI::App &command, CommonOptions &common) {
    command.add_option("-d,--device", common.device,
                       "The device: its id or VENDOR:PRODUCT; not needed when there is one only");
}

void addJsonOption(CLI::App &command, CommonOptions &common) {
    command.add_flag("--json", common.json, "Print the result as JSON");
}

namespace {

std::string versionText() {
    const _vexa_usb_version &version = *vexa_usb_get_version();
    return fmt::format("vexa-usb {}.{}.{} (build {}){}", version.major, version.minor,
                       version.patch, version.build, version.suffix);
}

int run(int argc, char **argv) {
    CommonOptions common;
    CLI::App app{"Works with the USB instruments that libvexa-usb supports.\n"};
    app.set_version_flag("-V,--version", versionText());
    app.require_subcommand(1);
    app.footer(std::string("'vexa-usb COMMAND --help' tells about a command.\n") + kExitHelp);
    addListCommand(app, common);
    addInfoCommand(app, common);
    addControlCommand(app, common);
    addReadCommand(app, common);
    addWriteCommand(app, common);
    addStreamCommand(app, common);
    addWatchCommand(app, common);
    addEventsCommand(app, common);
    addLoadCommand(app, common);
    addHexCommand(app, common);
    try {
        app.parse(argc, argv);
        if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0)
            throwSystemError("cannot write standard output");
        return static_cast<int>(Exit::Success);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? static_cast<int>(Exit::Success)
                                    : static_cast<int>(Exit::Usage);
    }
}

} // namespace

} // namespace tool

int main(int argc, char **argv) {
    // A reader of standard output that has gone shows as a failed write.
    std::signal(SIGPIPE, SIG_IGN);
    try {
        return tool::run(argc, argv);
    } catch (const tool::Error &error) {
        fmt::print(stderr, "vexa-usb: {}\n", error.what());
        if (!error.hint.empty())
            fmt::print(stderr, "  {}\n", error.hint);
        return static_cast<int>(error.exit);
    } catch (const std::exception &error) {
        fmt::print(stderr, "vexa-usb: {}\n", error.what());
        return static_cast<int>(tool::Exit::Failed);
    }
}
