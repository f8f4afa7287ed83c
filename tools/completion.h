#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
} // namespace CLI

namespace tool {

// Prints the candidates for the last of these words of a command line: one a line, followed by a
// tab and a description, or ":files" where a file name is expected. The scripts in completions/
// call this, so options are described in one place only.
void printCompletions(CLI::App &app, const std::vector<std::string> &words);

} // namespace tool
