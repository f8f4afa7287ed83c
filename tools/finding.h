#pragma once

#include <string>

#include "errors.h"

namespace tool {

// The result of one check of the machine: all is well, or something is in the way.
struct Finding {
    std::string subject; // what was checked, in one word
    std::string text;
    std::string remedy = {}; // the command that mends it, or what else to do
    Exit exit = Exit::Success;

    bool isFine() const { return exit == Exit::Success; }
};

} // namespace tool
