#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace CLI {
class Validator;
} // namespace CLI

namespace tool {

// Puts the number in place of the word; for any other word the error lists those that there are.
// `words` must live on.
CLI::Validator oneOf(const std::map<std::string, int32_t> &words);

} // namespace tool
