#include "completion.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstddef>
#include <sstream>
#include <string_view>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "device_list.h"
#include "usb_device.h"

namespace tool {

namespace {

using Words = std::vector<std::string>;

void print(const std::string &candidate, const std::string &description) {
    if (!candidate.empty())
        fmt::print("{}\t{}\n", candidate, description);
}

// Options are defined when their command is parsed. --help keeps the command from
// running.
const CLI::App &defineNamed(CLI::App &app, const Words &words) {
    Words named;
    std::copy_if(words.begin(), words.end() - 1, std::back_inserter(named),
                 [](const std::string &word) { return !word.starts_with("-"); });
    named.resize(std::min<size_t>(named.size(), 2)); // the command, and a kind of load
    named.emplace_back("--help");
    std::reverse(named.begin(), named.end());
    try {
        app.parse(std::move(named));
    } catch (const CLI::ParseError &) { // the words are not complete
    }
    const CLI::App *deepest = &app;
    while (!deepest->get_subcommands().empty())
        deepest = deepest->get_subcommands().front();
    return *deepest;
}

bool takesValue(const CLI::Option &option) {
    return option.get_items_expected_max() > 0;
}

// The option that the word before the last is, if it takes a value.
const CLI::Option *openOption(const CLI::App &command, const Words &words) {
    if (words.size() < 2 || !words[words.size() - 2].starts_with("-"))
        return nullptr;
    const CLI::Option *const option = command.get_option_no_throw(words[words.size() - 2]);
    return option != nullptr && takesValue(*option) ? option : nullptr;
}

// The positional argument whose turn it is.
const CLI::Option *nextPositional(const CLI::App &command, const Words &words) {
    auto begin = std::find(words.begin(), words.end() - 1, command.get_name());
    if (begin == words.end() - 1)
        return nullptr;
    size_t given = 0;
    for (auto word = begin + 1; word != words.end() - 1; ++word) {
        const bool isValue = openOption(command, Words(begin, word + 1)) != nullptr;
        given += !word->starts_with("-") && !isValue ? 1 : 0;
    }
    for (const CLI::Option *option : command.get_options()) {
        if (option->get_positional() && given-- == 0)
            return option;
    }
    return nullptr;
}

void printDevices(std::string UsbDevice::*field) {
    for (const UsbDevice &device : attachedDevices())
        print(device.*field, device.name());
}

// The choices are part of the type's name: WORD:{device,interface}
void printChoices(const std::string &type) {
    const size_t begin = type.find('{');
    const size_t end = type.find('}');
    if (begin == std::string::npos || end == std::string::npos)
        return;
    std::istringstream words(type.substr(begin + 1, end - begin - 1));
    for (std::string word; std::getline(words, word, ',');)
        print(word, "");
}

void printValues(const CLI::Option &option, const CLI::App &app) {
    constexpr std::array<std::string_view, 5> kFiles{"FILE", "output", "input", "binary", "image"};
    const std::string &name = option.get_single_name();
    if (std::find(kFiles.begin(), kFiles.end(), name) != kFiles.end())
        fmt::print(":files\n");
    else if (name == "serial")
        printDevices(&UsbDevice::serial);
    else if (name == "path")
        printDevices(&UsbDevice::busPath);
    else if (name == "device" || name == "DEVICE")
        for (const UsbDevice &device : attachedDevices())
            print(identifierText(device.vendor, device.product), device.name());
    else if (name == "COMMAND")
        for (const CLI::App *command : app.get_subcommands([](const CLI::App *) { return true; }))
            print(command->get_name(), command->get_description());
    else
        printChoices(option.get_type_name());
}

void printOptions(const CLI::App &command) {
    for (const CLI::Option *option : command.get_options()) {
        for (const std::string &name : option->get_lnames())
            print("--" + name, option->get_description());
    }
}

} // namespace

void printCompletions(CLI::App &app, const Words &words) {
    const CLI::App &command = defineNamed(app, words);
    if (const CLI::Option *option = openOption(command, words))
        return printValues(*option, app);
    if (words.back().starts_with("-"))
        return printOptions(command);
    for (const CLI::App *next : command.get_subcommands([](const CLI::App *) { return true; }))
        print(next->get_name(), next->get_description());
    if (const CLI::Option *option = nextPositional(command, words))
        printValues(*option, app);
}

} // namespace tool
