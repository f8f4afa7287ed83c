#include "words.h"

#include <cstdint>
#include <map>
#include <string>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

namespace tool {

namespace {

std::string listOf(const std::map<std::string, int32_t> &words, const char *between) {
    std::string list;
    for (const auto &[word, number] : words)
        list += (list.empty() ? "" : between) + word;
    return list;
}

} // namespace

CLI::Validator oneOf(const std::map<std::string, int32_t> &words) {
    return {[&words](std::string &text) {
                const auto found = words.find(text);
                if (found == words.end())
                    return fmt::format("'{}' is not one of: {}", text, listOf(words, ", "));
                text = std::to_string(found->second);
                return std::string();
            },
            "{" + listOf(words, ",") + "}"};
}

} // namespace tool
