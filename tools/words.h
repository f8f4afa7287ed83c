#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace CLI {
class Validator;
} // namespace CLI

namespace tool {

// Replaces a word by its number; the error for any other word lists the valid ones.
// `words` must outlive the validator.
CLI::Validator oneOf(const std::map<std::string, int32_t> &words);

} // namespace tool
