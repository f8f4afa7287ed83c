#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace vexausb {

// The pieces between delimiters, empty ones included: k delimiters make k + 1 pieces.  The views
// point into `text`.
std::vector<std::string_view> split(std::string_view text, char delimiter);
std::vector<std::string> splitToStrings(std::string_view text, char delimiter);
// Any character of the set is a delimiter.
std::vector<std::string_view> splitAny(std::string_view text, std::string_view delimiters);
std::vector<std::string> splitAnyToStrings(std::string_view text, std::string_view delimiters);

// Remove the given characters from an end, or from both; in place, and returning the same string.
std::string &trimLeft(std::string &text, std::string_view characters);
std::string &trimRight(std::string &text, std::string_view characters);
std::string &trim(std::string &text, std::string_view characters);
std::string &trimLeft(std::string &text, char character);
std::string &trimRight(std::string &text, char character);
std::string &trim(std::string &text, char character);
// The same on a copy.
std::string trimmedLeft(std::string text, std::string_view characters);
std::string trimmedRight(std::string text, std::string_view characters);
std::string trimmed(std::string text, std::string_view characters);
std::string trimmedLeft(std::string text, char character);
std::string trimmedRight(std::string text, char character);
std::string trimmed(std::string text, char character);

} // namespace vexausb
