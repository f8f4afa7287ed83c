#include "firmware/formats/strings.h"

#include <algorithm>
#include <utility>

namespace vexausb {

namespace {

std::string_view asSet(const char &character) {
    return {&character, 1};
}

std::vector<std::string> owned(const std::vector<std::string_view> &pieces) {
    return {pieces.begin(), pieces.end()};
}

} // namespace

std::vector<std::string_view> split(std::string_view text, char delimiter) {
    return splitAny(text, asSet(delimiter));
}

std::vector<std::string> splitToStrings(std::string_view text, char delimiter) {
    return owned(split(text, delimiter));
}

std::vector<std::string_view> splitAny(std::string_view text, std::string_view delimiters) {
    std::vector<std::string_view> pieces;
    size_t start = 0;
    size_t end = text.find_first_of(delimiters);
    while (end != std::string_view::npos) {
        pieces.push_back(text.substr(start, end - start));
        start = end + 1;
        end = text.find_first_of(delimiters, start);
    }
    pieces.push_back(text.substr(start));
    return pieces;
}

std::vector<std::string> splitAnyToStrings(std::string_view text, std::string_view delimiters) {
    return owned(splitAny(text, delimiters));
}

std::string &trimLeft(std::string &text, std::string_view characters) {
    return text.erase(0, text.find_first_not_of(characters));
}

std::string &trimRight(std::string &text, std::string_view characters) {
    const size_t last = text.find_last_not_of(characters);
    return text.erase(last == std::string::npos ? 0 : last + 1);
}

std::string &trim(std::string &text, std::string_view characters) {
    return trimLeft(trimRight(text, characters), characters);
}

std::string &trimLeft(std::string &text, char character) {
    return trimLeft(text, asSet(character));
}

std::string &trimRight(std::string &text, char character) {
    return trimRight(text, asSet(character));
}

std::string &trim(std::string &text, char character) {
    return trim(text, asSet(character));
}

std::string trimmedLeft(std::string text, std::string_view characters) {
    return std::move(trimLeft(text, characters));
}

std::string trimmedRight(std::string text, std::string_view characters) {
    return std::move(trimRight(text, characters));
}

std::string trimmed(std::string text, std::string_view characters) {
    return std::move(trim(text, characters));
}

std::string trimmedLeft(std::string text, char character) {
    return std::move(trimLeft(text, character));
}

std::string trimmedRight(std::string text, char character) {
    return std::move(trimRight(text, character));
}

std::string trimmed(std::string text, char character) {
    return std::move(trim(text, character));
}

} // namespace vexausb
