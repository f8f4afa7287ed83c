#pragma once

#include <cstdint>
#include <span>

namespace vexausb {

// Walks the sections of an FX3 boot image.
class Fx3ImageWalk {
public:
    enum class Record : uint8_t {
        Section, // address(), data()
        Entry,   // address() of the program; checksumRight()
        End,     // of an image without an entry
        Broken,  // runs past the end of the image
    };

    explicit Fx3ImageWalk(std::span<const uint32_t> imageWords) : image(imageWords) {}

    Record next();
    uint32_t address() const { return recordAddress; }
    std::span<const uint32_t> data() const { return recordData; }
    bool checksumRight() const { return storedSum == sum; }

private:
    Record entry(std::span<const uint32_t> record);

    const std::span<const uint32_t> image;
    uint64_t index = 1; // behind the header word
    uint32_t recordAddress = 0;
    std::span<const uint32_t> recordData;
    uint32_t sum = 0;
    uint32_t storedSum = 0;
};

} // namespace vexausb
