#include "firmware/fx3_image.h"

#include <numeric>

namespace vexausb {

/*
 * An FX3 boot image in 32-bit words: a header, which is not looked at; sections of a length, an
 * address and so many data words; then length 0, the program's entry and the sum of all data words.
 *
 * next() gives one record after the other.  A record that does not fit into the image is broken,
 * and nothing of it is given.
 */
namespace {

constexpr size_t kSectionHeaderWords = 2;
constexpr size_t kEntryWords = 3;

} // namespace

Fx3ImageWalk::Record Fx3ImageWalk::next() {
    if (index_ >= image_.size())
        return Record::End;
    const std::span<const uint32_t> record = image_.subspan(index_);
    const uint32_t length = record[0];
    if (length == 0)
        return entry(record);
    if (record.size() < kSectionHeaderWords || record.size() - kSectionHeaderWords < length)
        return Record::Broken;
    address_ = record[1];
    data_ = record.subspan(kSectionHeaderWords, length);
    sum_ = std::accumulate(data_.begin(), data_.end(), sum_);
    index_ += kSectionHeaderWords + length;
    return Record::Section;
}

Fx3ImageWalk::Record Fx3ImageWalk::entry(std::span<const uint32_t> record) {
    if (record.size() < kEntryWords)
        return Record::Broken;
    address_ = record[1];
    storedSum_ = record[2];
    return Record::Entry;
}

} // namespace vexausb
