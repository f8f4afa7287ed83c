#include "amounts.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "progress.h"

namespace tool {

namespace {

// NaN for text that is not a number.
double numberIn(const std::string &text) {
    char *end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    const bool isNumber = !text.empty() && *end == '\0' && std::isfinite(value);
    return isNumber ? value : std::numeric_limits<double>::quiet_NaN();
}

// k, kB and KiB are all 1024.
std::optional<uint64_t> unitFactor(std::string unit) {
    constexpr std::string_view kPrefixes = "KMGTPE";
    std::transform(unit.begin(), unit.end(), unit.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::toupper(letter)); });
    if (unit.empty() || unit == "B")
        return 1;
    const size_t prefix = kPrefixes.find(unit[0]);
    const std::string rest = unit.substr(1);
    if (prefix == std::string_view::npos || (!rest.empty() && rest != "B" && rest != "IB"))
        return std::nullopt;
    return uint64_t{1} << (10 * (prefix + 1));
}

struct Parsed {
    uint64_t value; // 0 where there is no number
    std::errc error;
    std::string rest; // what follows it
};

// The whole number at the beginning of the text, decimal or hexadecimal.
Parsed wholeNumber(const std::string &text) {
    const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
    const char *const last = text.data() + text.size();
    uint64_t value = 0;
    const auto [end, error] =
        std::from_chars(text.data() + (hexadecimal ? 2 : 0), last, value, hexadecimal ? 16 : 10);
    return {value, error, std::string(end, last)};
}

// Replaces the text by the number in decimal, since CLI11 would take a 0 in front for octal;
// returns the error, empty when there is none.
std::string convertWhole(std::string &text, uint64_t least, uint64_t most,
                         const std::string &refusal) {
    const Parsed number = wholeNumber(text);
    if (number.error != std::errc() || !number.rest.empty() || number.value < least ||
        number.value > most)
        return fmt::format("'{}' {}", text, refusal);
    text = std::to_string(number.value);
    return {};
}

// Replaces the text by the number of bytes; returns the error, empty when there is none.
std::string convertBytes(std::string &text, uint64_t most, const char *whyNotMore) {
    const Parsed number = wholeNumber(text);
    const auto factor = unitFactor(number.rest);
    if (number.error == std::errc::invalid_argument || !factor)
        return fmt::format("'{}' is not a number of bytes such as 4096, 64k or 0x1000", text);
    if (number.error == std::errc::result_out_of_range || number.value > most / *factor)
        return fmt::format("{} is more than {}{}", text, sizeText(most), whyNotMore);
    if (number.value == 0)
        return fmt::format("'{}' is not a number above 0", text);
    text = std::to_string(number.value * *factor);
    return {};
}

} // namespace

CLI::Validator positive() {
    return {[](const std::string &text) {
                return numberIn(text) > 0 ? std::string()
                                          : "'" + text + "' is not a finite number above 0";
            },
            "POSITIVE"};
}

CLI::Validator notNegative() {
    return {[](const std::string &text) {
                return numberIn(text) >= 0
                           ? std::string()
                           : "'" + text + "' is neither 0 nor a finite number above it";
            },
            "NONNEGATIVE"};
}

CLI::Validator positiveCount() {
    return {[](std::string &text) {
                return convertWhole(text, 1, std::numeric_limits<uint64_t>::max(),
                                    "is not a whole number above 0, or is too large");
            },
            "POSITIVE"};
}

CLI::Validator upTo(uint64_t most) {
    return {[most](std::string &text) {
                return convertWhole(
                    text, 0, most,
                    fmt::format("is not a whole number from 0 to {0} ({0:#x})", most));
            },
            "NUMBER"};
}

CLI::Validator notEmpty() {
    return {[](const std::string &text) {
                return text.empty() ? "its value is empty; leave it out, or give one"
                                    : std::string();
            },
            ""};
}

CLI::Validator byteCount() {
    return {[](std::string &text) {
                return convertBytes(text, std::numeric_limits<uint64_t>::max(), "");
            },
            "SIZE"};
}

CLI::Validator byteCountInMemory() {
    return {[](std::string &text) {
                return convertBytes(text, kMostInMemory,
                                    ", which is the most that is held in memory; 'vexa-usb stream' "
                                    "reads without end");
            },
            "SIZE"};
}

} // namespace tool
