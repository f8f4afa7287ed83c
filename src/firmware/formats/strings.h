#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace vexausb {

// The pieces between the delimiters, also empty ones: k delimiters make k + 1 pieces.  The views
// point into `text`.
std::vector<std::string_view> split(std::string_view text, char delimiter);
std::vector<std::string> splitToStrings(std::string_view text, char delimiter);
// The same with several delimiters: each character of `delimiters` is one.
std::vector<std::string_view> splitAny(std::string_view text, std::string_view delimiters);
std::vector<std::string> splitAnyToStrings(std::string_view text, std::string_view delimiters);

// Remove the given characters from the left end, the right end or both.  These change `text`, and
// return it.
std::string &trimLeft(std::string &text, std::string_view characters);
std::string &trimRight(std::string &text, std::string_view characters);
std::string &trim(std::string &text, std::string_view characters);
std::string &trimLeft(std::string &text, char character);
std::string &trimRight(std::string &text, char character);
std::string &trim(std::string &text, char character);
// The same for a copy, which they return.
std::string trimmedLeft(std::string text, std::string_view characters);
std::string trimmedRight(std::string text, std::string_view characters);
std::string trimmed(std::string text, std::string_view characters);
std::string trimmedLeft(std::string text, char character);
std::string trimmedRight(std::string text, char character);
std::string trimmed(std::string text, char character);

} // namespace vexausb
