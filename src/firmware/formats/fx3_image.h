#pragma once

#include <cstdint>
#include <span>

namespace vexausb {

/*
 * Reads an FX3 boot image one record at a time.  The image consists of 32-bit words: a header word,
 * which is not examined; sections, each a length, an address and that many data words; at the end
 * the length 0, the program's entry address and the sum of all data words.
 *
 * Life: reads the caller's image, which must outlive it.
 *
 * Threads: one at a time.
 */
class Fx3ImageWalk {
public:
    enum class Record : uint8_t {
        Section, // address(), data()
        Entry,   // address() of the program; checksumRight()
        End,     // of an image without an entry
        Broken,  // the record runs past the end of the image
    };

    explicit Fx3ImageWalk(std::span<const uint32_t> image) : image_(image) {}

    // Reads the next record.  The functions below describe it, as Record says.
    Record next();
    uint32_t address() const { return address_; }
    std::span<const uint32_t> data() const { return data_; }
    // Whether the sum at the end is that of all sections read so far.
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
