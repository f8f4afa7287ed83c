#include "inbox.h"

#include <utility>

namespace endurance {

using vexausb::MutexLock;

void Inbox::callback(_vexa_usb_device_event event, void *inbox) {
    auto &self = *static_cast<Inbox *>(inbox);
    const MutexLock lock(self.mutex_);
    switch (event) {
    case VEXA_USB_DEVICE_EVENT_DATA_STREAM_BUFFER_FULL:
        ++self.full_;
        break;
    case VEXA_USB_DEVICE_EVENT_DATA_STREAM_ERROR:
        self.signs_.error = true;
        break;
    case VEXA_USB_DEVICE_EVENT_REMOVED:
        self.signs_.removed = true;
        break;
    case VEXA_USB_DEVICE_EVENT_DATA_STREAM_STARTED:
        self.signs_.started = true;
        break;
    case VEXA_USB_DEVICE_EVENT_DATA_STREAM_STOPPED:
        self.signs_.stopped = true;
        break;
    default:
        self.take(static_cast<uint8_t>(event));
    }
    self.changed_.notifyAll();
}

void Inbox::take(uint8_t byte) {
    const bool isRight = received_ < bytes_.size() && bytes_[received_] == byte;
    if (!isRight && foundFirst_)
        signs_.wrongByte = true;
    else if (!isRight)
        received_ = !bytes_.empty() && bytes_[0] == byte ? 1 : 0;
    else if (++received_ == bytes_.size()) {
        foundFirst_ = true;
        complete_ = Clock::now();
    }
}

void Inbox::clear() {
    const MutexLock lock(mutex_);
    full_ = 0;
    signs_ = {};
    foundFirst_ = false;
    bytes_.clear();
    received_ = 0;
}

Inbox::News Inbox::waitForBuffer(uint64_t seen) {
    const auto deadline = Clock::now() + kPatience;
    const MutexLock lock(mutex_);
    changed_.waitUntil(mutex_, deadline, [this, seen]() REQUIRES(mutex_) {
        return full_ > seen || signs_.error || signs_.removed;
    });
    if (full_ > seen)
        return News::Full;
    if (signs_.removed)
        return News::Removed;
    return signs_.error ? News::Error : News::Silence;
}

bool Inbox::has(News end) const {
    return end == News::Error     ? signs_.error
           : end == News::Removed ? signs_.removed
                                  : signs_.stopped;
}

Inbox::News Inbox::waitForEnd(News end, std::chrono::seconds patience) {
    const auto deadline = Clock::now() + patience;
    const MutexLock lock(mutex_);
    changed_.waitUntil(mutex_, deadline,
                       [this, end]() REQUIRES(mutex_) { return has(end) || signs_.removed; });
    if (has(end))
        return end;
    return signs_.removed ? News::Removed : News::Silence;
}

void Inbox::expectBytes(std::vector<uint8_t> bytes) {
    const MutexLock lock(mutex_);
    bytes_ = std::move(bytes);
    received_ = 0;
    announced_ = Clock::now();
}

std::optional<Inbox::Clock::duration> Inbox::waitForBytes(std::chrono::seconds patience) {
    const auto deadline = Clock::now() + patience;
    const MutexLock lock(mutex_);
    changed_.waitUntil(mutex_, deadline, [this]() REQUIRES(mutex_) {
        return received_ == bytes_.size() || signs_.removed;
    });
    if (received_ < bytes_.size())
        return std::nullopt;
    return complete_ - announced_;
}

Inbox::Signs Inbox::signs() {
    const MutexLock lock(mutex_);
    return signs_;
}

} // namespace endurance
