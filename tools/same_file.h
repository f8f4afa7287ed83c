#pragma once

#include <string>

namespace tool {

// Whether both paths lead to the same file. The file need not exist yet; - is standard output.
// Links are followed.
bool isSameFile(const std::string &path, const std::string &other);

} // namespace tool
