#include "firmware/formats/file_reader.h"

#include <fstream>

namespace vexausb {

namespace {

template <typename Container>
Container readFile(const std::string &path) {
    std::ifstream file(path, std::ios_base::binary);
    file.exceptions(std::ios_base::failbit | std::ios_base::badbit);
    file.seekg(0, std::ios_base::end);
    const std::streamoff size = file.tellg();
    Container contents(static_cast<size_t>(size), 0);
    file.seekg(0);
    file.read(reinterpret_cast<char *>(contents.data()), size);
    return contents;
}

} // namespace

std::string readFileToString(const std::string &path) {
    return readFile<std::string>(path);
}

std::vector<uint8_t> readFileToBytes(const std::string &path) {
    return readFile<std::vector<uint8_t>>(path);
}

} // namespace vexausb
