#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "boot_device.h"
#include "device_model.h"
#include "hostile_device.h"
#include "lies.h"

namespace sim {

// A device as the command line describes it.
struct DeviceSpecification {
    std::string kind;
    std::string as; // the kind of the device that a hostile one is otherwise; else `kind` again
    DeviceShape shape;
    LoadBehaviour behaviour;
    std::string recording;             // the file that an instrument streams; empty: the pattern
    std::chrono::milliseconds away{0}; // before it is plugged in for the first time
    const Lie *lie = nullptr;          // what a hostile device lies about
    std::optional<Leaving> leaving;
};

// Parses KIND[,KEY=VALUE...]; throws std::invalid_argument with a message for the user.
DeviceSpecification parseDeviceSpecification(const std::string &text);

std::unique_ptr<DeviceModel> makeDevice(const DeviceSpecification &specification);

// The text about devices in --help.
std::string deviceSpecificationHelp();

} // namespace sim
