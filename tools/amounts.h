#pragma once

#include <cstdint>

namespace CLI {
class Validator;
} // namespace CLI

namespace tool {

// What a single transfer or a file that is sent can have: it is held in memory as a whole.
inline constexpr uint64_t kMostInMemory = uint64_t{256} << 20;

// Checks for the amounts that a user gives; each refuses what is no number, is not finite, or does
// not fit.

CLI::Validator positive();      // above 0, with a fraction if need be
CLI::Validator notNegative();   // or 0
CLI::Validator positiveCount(); // a whole number above 0
// Bytes, with a unit such as k or M if need be; to be used as a transform.
CLI::Validator byteCount();
CLI::Validator byteCountInMemory();

} // namespace tool
