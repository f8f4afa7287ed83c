// vexa-usb: the library's services as a command.
#include <algorithm>
#include <array>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <unistd.h>

#include "amounts.h"
#include "commands.h"
#include "completion.h"
#include "errors.h"
#include "vexa_usb.h"

namespace tool {

void addDeviceOptions(CLI::App &command, CommonOptions &common, const std::string &position) {
    command.add_option("-d,--device" + (position.empty() ? position : "," + position),
                       common.device.device,
                       "The device: its id or VENDOR:PRODUCT; not needed when there is one only");
    addPlaceOptions(command, common);
}

void addPlaceOptions(CLI::App &command, CommonOptions &common) {
    command.add_option("--serial", common.device.serial, "The device with this serial number");
    command.add_option("--path", common.device.busPath,
                       "The device at this place on the bus, for instance 1-2.3");
}

void addJsonOption(CLI::App &command, CommonOptions &common) {
    command.add_flag("--json", common.json, "Print the result as JSON");
}

void addVerboseOption(CLI::App &command, CommonOptions &common) {
    command.add_flag_function(
        "-v,--verbose",
        [&common](int64_t times) {
            common.verbosity += times;
            setenv("VEXA_USB_LOG", common.verbosity > 1 ? "debug" : "info", 1);
        },
        "Let the library tell on standard error what it does and why something fails; twice: in "
        "detail");
}

void addCommand(CLI::App &app, const char *name, const char *help,
                std::function<void(CLI::App &)> define) {
    CLI::App *command = app.add_subcommand(name, help);
    command->preparse_callback([command, define = std::move(define)](size_t /*arguments*/) {
        define(*command);
        for (CLI::Option *option : command->get_options())
            option->check(notEmpty());
    });
}

namespace {

constexpr const char *kCompletionCommand = "__complete"; // for the shells alone

struct Command {
    const char *name;
    const char *help;
    void (*define)(CLI::App &command, CommonOptions &common);
};

constexpr std::array kCommands{
    Command{"list", "List the supported devices that are attached", defineListCommand},
    Command{"info", "Show a device's details", defineInfoCommand},
    Command{"control", "Do a control transfer", defineControlCommand},
    Command{"read", "Read from an IN endpoint", defineReadCommand},
    Command{"write", "Write to an OUT endpoint", defineWriteCommand},
    Command{"stream", "Stream from a bulk IN endpoint", defineStreamCommand},
    Command{"watch", "Tell as devices come and go", defineWatchCommand},
    Command{"events", "Print the bytes that an endpoint sends", defineEventsCommand},
    Command{"load", "Boot a device from a firmware file", defineLoadCommand},
    Command{"hex", "Check and convert an Intel HEX file", defineHexCommand},
    Command{"doctor", "Tell what keeps the devices from working, and how to mend it",
            defineDoctorCommand},
};

std::string versionText() {
    const _vexa_usb_version &version = *vexa_usb_get_version();
    return fmt::format("vexa-usb {}.{}.{} (build {}){}", version.major, version.minor,
                       version.patch, version.build, version.suffix);
}

// Names the word that is not a command. CLI11 would only say that a command is missing.
void throwIfUnknown(const CLI::App &app) {
    const CLI::App *named = &app;
    while (!named->get_subcommands().empty())
        named = named->get_subcommands().front();
    const auto words = named->remaining();
    if (named->get_require_subcommand_min() == 0 || words.empty() || words[0].starts_with('-'))
        return;
    const std::string whole =
        named == &app ? std::string("vexa-usb") : "vexa-usb " + named->get_name();
    std::string names;
    for (const CLI::App *each : named->get_subcommands([](const CLI::App *) { return true; }))
        names += (names.empty() ? "" : ", ") + each->get_name();
    throw Error(Exit::Usage, fmt::format("'{}' has no command '{}'", whole, words[0]),
                fmt::format("It has: {}. '{} --help' tells about them.", names, whole));
}

int run(std::vector<std::string> words);

std::string helpFor(const CLI::App &app) {
    std::string command = "vexa-usb help";
    for (const CLI::App *named = &app; !named->get_subcommands().empty();) {
        named = named->get_subcommands().front();
        command += " " + named->get_name();
    }
    return command;
}

// 'help load fx2' is 'load fx2 --help'.
void defineHelpCommand(CLI::App &app) {
    const auto words = std::make_shared<std::vector<std::string>>();
    CLI::App *command = app.add_subcommand("help", "Show the help of a command");
    command->add_option("COMMAND", *words, "The command; without it, the help of vexa-usb");
    command->callback([words]() {
        words->emplace_back("--help");
        run(*words);
    });
}

void defineCommands(CLI::App &app, CommonOptions &common) {
    app.set_version_flag("-V,--version", versionText);
    app.require_subcommand(1);
    app.footer(std::string("'vexa-usb help COMMAND' tells about a command.\n") + kExitHelp);
    addJsonOption(app, common);
    addVerboseOption(app, common);
    for (const Command &command : kCommands) {
        addCommand(app, command.name, command.help, [&common, &command](CLI::App &named) {
            command.define(named, common);
            addVerboseOption(named, common);
        });
    }
    defineHelpCommand(app);
}

int run(std::vector<std::string> words) {
    CommonOptions common;
    CLI::App app{"Works with the USB instruments that libvexa-usb supports.\n", "vexa-usb"};
    defineCommands(app, common);
    if (words.size() > 1 && words.front() == kCompletionCommand) {
        printCompletions(app, {words.begin() + 1, words.end()});
        return static_cast<int>(Exit::Success);
    }
    try {
        std::reverse(words.begin(), words.end()); // the parser takes them from the back
        app.parse(std::move(words));
        return static_cast<int>(Exit::Success);
    } catch (const CLI::ParseError &error) {
        const int code = error.get_exit_code();
        if (code == static_cast<int>(CLI::ExitCodes::RequiredError) ||
            dynamic_cast<const CLI::CallForHelp *>(&error) != nullptr)
            throwIfUnknown(app);
        if (code != 0)
            throw Error(Exit::Usage, error.what(),
                        fmt::format("'{}' tells what it takes.", helpFor(app)));
        return app.exit(error);
    }
}

int reportNoMemory(const char *likely = "") {
    fmt::print(stderr,
               "vexa-usb: there is {}not enough memory\n"
               "  End other programs, or ask for less at once.\n",
               likely);
    return static_cast<int>(Exit::Failed);
}

// Tells of the exception in hand; answers the exit status.
int report() {
    try {
        throw;
    } catch (const Error &error) {
        fmt::print(stderr, "vexa-usb: {}\n", error.what());
        if (!error.hint.empty())
            fmt::print(stderr, "  {}\n", error.hint);
        return static_cast<int>(error.exit);
    } catch (const std::bad_alloc &) {
        return reportNoMemory();
    } catch (const std::exception &error) {
        fmt::print(stderr, "vexa-usb: {}\n", error.what());
        return static_cast<int>(Exit::Failed);
    }
}

// For exceptions that no handler gets: in a callback, before main(), and in std::filesystem, which
// throws for want of memory where it may not, and where what it has thrown cannot always be had.
[[noreturn]] void onTerminate() {
    if (std::current_exception() != nullptr)
        _exit(report());
    if (std::uncaught_exceptions() > 0)
        _exit(reportNoMemory("most likely "));
    std::abort();
}

// Before main() and the other static objects, since those of CLI11's headers allocate.
[[gnu::constructor(101)]] void prepareToTerminate() {
    std::set_terminate(onTerminate);
}

} // namespace

} // namespace tool

int main(int argc, char **argv) {
    // Without the signal, a closed pipe shows as a failed write.
    std::signal(SIGPIPE, SIG_IGN);
    try {
        const int status = tool::run({argv + 1, argv + argc});
        if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0)
            tool::throwSystemError("cannot write standard output");
        return status;
    } catch (const std::exception &) {
        return tool::report();
    }
}
