// Runs a fuzz target over the files of a saved corpus, where there is no fuzzer to do that.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>

#include "firmware/formats/file_reader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv) {
    size_t count = 0;
    for (int i = 1; i < argc; ++i) {
        for (const auto &entry : std::filesystem::directory_iterator(argv[i])) {
            const auto bytes = vexausb::readFileToBytes(entry.path());
            LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
            ++count;
        }
    }
    std::printf("%zu inputs\n", count);
    return count == 0 ? 1 : 0;
}
