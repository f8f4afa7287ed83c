#pragma once

#include <string>

#include "bytes.h"

namespace tool {

// Boot images for an NXP i.MX7, checked as far as their headers allow.
Bytes readSplImage(const std::string &path);
Bytes readUbootImage(const std::string &path);

} // namespace tool
