#include "firmware/formats/fx3_image.h"

#include <numeric>

namespace vexausb {

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
