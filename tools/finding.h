#pragma once

#include <string>

#include "errors.h"

namespace tool {

// What one look at the machine has found: all is well, or something is in the way.
struct Finding {
    std::string subject; // what was looked at, in a word
    std::string text;
    std::string remedy = {}; // the command that mends it, or what else to do
    Exit exit = Exit::Success;

    bool isFine() const { return exit == Exit::Success; }
};

} // namespace tool
