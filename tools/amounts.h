#pragma once

#include <cstdint>

namespace CLI {
class Validator;
} // namespace CLI

namespace tool {

// The most bytes in a single transfer or a file to send, since all of them are held in memory.
inline constexpr uint64_t kMostInMemory = uint64_t{256} << 20;

// Checks for the amounts that a user gives. Each refuses text that is not a number, and numbers
// that are infinite or too large.

CLI::Validator positive();    // above 0; fractions are allowed
CLI::Validator notNegative(); // 0 or above; fractions are allowed
// Whole numbers, decimal or hexadecimal (0x); use these with transform().
CLI::Validator positiveCount();     // above 0
CLI::Validator upTo(uint64_t most); // from 0
// Bytes above 0, with or without a unit such as k or M.
CLI::Validator byteCount();
CLI::Validator byteCountInMemory();

// Refuses an empty text, which a script's unset variable gives.
CLI::Validator notEmpty();

} // namespace tool
