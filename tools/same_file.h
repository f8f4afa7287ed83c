#pragma once

#include <string>

namespace tool {

// Whether what is written to one path would be written to the other, be there a file yet or not; -
// is standard output.
bool isSameFile(const std::string &path, const std::string &other);

} // namespace tool
