#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "device_model.h"
#include "usb.h"

namespace sim {

// What the host asks of a device, other than by a standard request.
struct Question {
    const Setup *setup; // null: a transfer on another endpoint than 0
    bool in;
    size_t length; // of the room for the answer, or of the data
};

// One thing in which a device does not do what the standard or the host expects of it.
struct Lie {
    const char *name;
    const char *description; // in --help
    // Changes a descriptor before it is sent; the request for one without bytes is refused.  The
    // value is that of the request: the descriptor's type, and its index in the low byte.
    void (*descriptor)(uint16_t value, Bytes &bytes);
    // The answer in place of the true one; none where the device tells the truth.
    std::optional<Answer> (*answer)(const Question &question, std::span<uint8_t> room);
};

// Throws std::invalid_argument, with the names that there are.
const Lie &findLie(const std::string &name);

// The table of lies in --help.
std::string lieHelp();

} // namespace sim
