#include "inbox.h"

#include <utility>

namespace endurance {

void Inbox::callback(_vexa_usb_device_event event, void *inbox) {
    auto &self = *static_cast<Inbox *>(inbox);
    const std::lock_guard lock(self.mutex_);
    switch (event) {
    case VEXA_USB_DEVICE_EVENT_DATA_STREAM_BUFFER_FULL:
        ++self.full_;
        break;
    case VEXA_USB_DEVICE_EVENT_DATA_STREAM_ERROR:
        self.error_ = true;
        break;
    case VEXA_USB_DEVICE_EVENT_REMOVED:
        self.removed_ = true;
        break;
    case VEXA_USB_DEVICE_EVENT_DATA_STREAM_STARTED:
        self.started_ = true;
        break;
    case VEXA_USB_DEVICE_EVENT_DATA_STREAM_STOPPED:
        self.stopped_ = true;
        break;
    default:
        self.take(static_cast<uint8_t>(event));
    }
    self.changed_.notify_all();
}

void Inbox::take(uint8_t byte) {
    const bool isRight = received_ < bytes_.size() && bytes_[received_] == byte;
    if (!isRight && foundFirst_)
        wrongByte_ = true;
    else if (!isRight)
        received_ = !bytes_.empty() && bytes_[0] == byte ? 1 : 0;
    else if (++received_ == bytes_.size()) {
        foundFirst_ = true;
        complete_ = Clock::now();
    }
}

void Inbox::clear() {
    const std::lock_guard lock(mutex_);
    full_ = 0;
    started_ = error_ = removed_ = stopped_ = wrongByte_ = foundFirst_ = false;
    bytes_.clear();
    received_ = 0;
}

Inbox::News Inbox::waitForBuffer(uint64_t seen) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, kPatience, [&]() { return full_ > seen || error_ || removed_; });
    if (full_ > seen)
        return News::Full;
    if (removed_)
        return News::Removed;
    return error_ ? News::Error : News::Silence;
}

bool Inbox::has(News end) const {
    return end == News::Error ? error_ : end == News::Removed ? removed_ : stopped_;
}

Inbox::News Inbox::waitForEnd(News end, std::chrono::seconds patience) {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, patience, [&]() { return has(end) || removed_; }))
        return News::Silence;
    return has(end) ? end : News::Removed;
}

void Inbox::expectBytes(std::vector<uint8_t> bytes) {
    const std::lock_guard lock(mutex_);
    bytes_ = std::move(bytes);
    received_ = 0;
    announced_ = Clock::now();
}

std::optional<Inbox::Clock::duration> Inbox::waitForBytes() {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, kPatience, [&]() { return received_ == bytes_.size() || removed_; });
    if (received_ < bytes_.size())
        return std::nullopt;
    return complete_ - announced_;
}

bool Inbox::started() {
    const std::lock_guard lock(mutex_);
    return started_;
}

bool Inbox::removed() {
    const std::lock_guard lock(mutex_);
    return removed_;
}

bool Inbox::failed() {
    const std::lock_guard lock(mutex_);
    return error_;
}

bool Inbox::wrongByte() {
    const std::lock_guard lock(mutex_);
    return wrongByte_;
}

} // namespace endurance
