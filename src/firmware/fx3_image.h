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

    explicit Fx3ImageWalk(std::span<const uint32_t> image) : image_(image) {}

    Record next();
    uint32_t address() const { return address_; }
    std::span<const uint32_t> data() const { return data_; }
    bool checksumRight() const { return storedSum_ == sum_; }

private:
    Record entry(std::span<const uint32_t> record);

    const std::span<const uint32_t> image_;
    uint64_t index_ = 1; // behind the header word
    uint32_t address_ = 0;
    std::span<const uint32_t> data_;
    uint32_t sum_ = 0;
    uint32_t storedSum_ = 0;
};

} // namespace vexausb
