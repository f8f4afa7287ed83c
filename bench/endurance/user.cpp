#include "user.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <span>
#include <string>
#include <thread>
#include <tuple>

#include "instrument_protocol.h"
#include "stream_pattern.h"

namespace endurance {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using News = Inbox::News;

constexpr uint64_t kRingBytes = 8U << 20;
constexpr double kSmallestBuffer = 1e4;
constexpr double kLargestByThat = 200; // times as large
constexpr std::chrono::seconds kBetweenErrorAndRemoval{3};
// Where others may reset the device, which ends its event pipe.
constexpr std::chrono::seconds kForEventsThatMayBeLost{5};
constexpr size_t kFirstEventBytes = 32;
constexpr size_t kMarkBytes = 16;
constexpr size_t kMostInLoop = 4U << 20;
constexpr uint8_t kLowestEventByte = 16; // the stream's own events lie below

} // namespace

std::pair<_vexa_usb_device *, uint64_t> Claims::open(Inbox &inbox, uint64_t random) {
    vexa_usb_update_device_list();
    _vexa_usb_device_list_item **list = nullptr;
    uint64_t count = 0;
    std::pair<_vexa_usb_device *, uint64_t> result{nullptr, 0};
    if (vexa_usb_get_device_list(&list, &count) != VEXA_USB_STATUS_SUCCESS)
        return result;
    for (uint64_t i = 0; i < count && result.first == nullptr; ++i) {
        const auto *const item = list[(i + random) % count];
        {
            const vexausb::MutexLock lock(mutex_);
            if (item->vendor_id != VEXA_USB_VENDOR_ID || !taken_.insert(item->id).second)
                continue;
        }
        result.second = item->id;
        if (vexa_usb_open(item, Inbox::callback, &inbox, &result.first) != VEXA_USB_STATUS_SUCCESS)
            giveBack(item->id);
    }
    vexa_usb_free_device_list(list);
    return result;
}

void Claims::giveBack(uint64_t id) {
    const vexausb::MutexLock lock(mutex_);
    taken_.erase(id);
}

void User::run(bool untilRemoved) {
    while (!leave) {
        const uint64_t kind = random(0, 9);
        if (!openDevice())
            std::this_thread::sleep_for(milliseconds(random(20, 200)));
        else if (kind == 0 && settings_.overflows)
            session(Ending::Overflow);
        else
            session(kind < 5 ? Ending::Close : Ending::Stop);
    }
    while (untilRemoved) {
        if (openDevice()) {
            session(Ending::Removal);
            if (inbox_->signs().removed)
                return;
        } else if (mayGiveUp) {
            return;
        }
        std::this_thread::sleep_for(milliseconds(random(20, 200)));
    }
}

bool User::openDevice() {
    inbox_ = &inboxes_[++turn_ % inboxes_.size()];
    inbox_->clear();
    std::tie(device_, id_) = claims_.open(*inbox_, engine_() % UINT32_MAX);
    seen_ = position_ = 0;
    eventsCame_ = false;
    mayBeRemoved_ = settings_.foreign;
    tally_.open += device_ == nullptr ? 0 : 1;
    return device_ != nullptr;
}

void User::closeDevice() {
    if (inbox_->signs().wrongByte)
        tally_.finding("a byte came that no event packet held");
    --tally_.open;
    ++tally_.sessions;
    tally_.removals += inbox_->signs().removed ? 1 : 0;
    if (vexa_usb_close(device_) != VEXA_USB_STATUS_SUCCESS)
        tally_.finding("a close failed");
    claims_.giveBack(id_);
}

bool User::isFine(int32_t status, const char *call) {
    if (status == VEXA_USB_STATUS_SUCCESS)
        return true;
    // USB errors come before the library has taken notice of the removal.
    if (mayBeRemoved_ &&
        (status == VEXA_USB_STATUS_UNKNOWN || status == VEXA_USB_STATUS_DEVICE_REMOVED ||
         status == VEXA_USB_STATUS_TIMEOUT || status == VEXA_USB_STATUS_NOT_ALL_DATA_TRANSFERRED))
        return false;
    if (status == VEXA_USB_STATUS_TIMEOUT) { // the machine is too busy to answer in a second
        ++tally_.timeouts;
        return false;
    }
    tally_.finding(std::string(call) + " answers " + vexa_usb_get_status_str(status));
    return false;
}

int32_t User::control(uint8_t request, uint16_t value, uint16_t index, void *data, size_t size) {
    return vexa_usb_control_transfer(device_, VEXA_USB_DIRECTION_OUT, VEXA_USB_TYPE_VENDOR,
                                     VEXA_USB_RECIPIENT_DEVICE, request, value, index,
                                     static_cast<uint8_t *>(data), size);
}

void User::session(Ending ending) {
    mayBeRemoved_ = mayBeRemoved_ || ending == Ending::Removal;
    isLast = ending == Ending::Removal;
    if (isFine(vexa_usb_event_pipe_enable(device_, sim::kEventEndpoint), "event pipe") &&
        startStream()) {
        const auto until =
            steady_clock::now() +
            milliseconds(random(500, static_cast<uint64_t>(settings_.longest.count())));
        bool goesOn = true;
        while (goesOn && (ending == Ending::Removal || steady_clock::now() < until)) {
            goesOn = drain(steady_clock::now() + milliseconds(random(50, 500)));
            if (goesOn && pull.exchange(false)) {
                pullDevice();
                goesOn = false;
            } else if (goesOn && ending != Ending::Removal && random(0, 3) == 0)
                loopBack();
            else if (goesOn && ending != Ending::Removal)
                goesOn = sendEvents();
        }
        goesOn ? end(ending) : afterTheEnd();
    }
    closeDevice();
}

bool User::startStream() {
    uint64_t size = settings_.bufferSize;
    uint64_t count = settings_.bufferCount;
    if (size == 0) {
        size = static_cast<uint64_t>(
            kSmallestBuffer *
            std::pow(kLargestByThat, std::uniform_real_distribution<double>(0, 1)(engine_)));
        count = kRingBytes / size + 4;
    }
    uint64_t begin = 0;
    const auto delay = static_cast<uint16_t>(settings_.delay.count());
    return isFine(control(sim::kRequestSeek, 0, 0, &begin, sizeof(begin)), "seek") &&
           isFine(control(sim::kRequestDelay, delay, sim::kStreamEndpoint, nullptr, 0), "delay") &&
           isFine(vexa_usb_data_stream_start(device_, sim::kStreamEndpoint, size, count), "start");
}

// False when the stream has ended.
bool User::drain(steady_clock::time_point until) {
    while (steady_clock::now() < until) {
        if (!drainOne())
            return false;
    }
    return true;
}

bool User::drainOne() {
    const News news = inbox_->waitForBuffer(seen_);
    if (news == News::Silence)
        noteSilence("a stream is silent after " + std::to_string(position_));
    if (news != News::Full)
        return false;
    if (!inbox_->signs().started)
        tally_.finding("a buffer was full before the stream had started");
    uint8_t *data = nullptr;
    uint64_t size = 0;
    const int32_t status = vexa_usb_data_stream_buffer_lock(device_, &data, &size);
    if (status == VEXA_USB_STATUS_DEVICE_REMOVED || !isFine(status, "lock"))
        return false;
    ++seen_;
    const uint64_t right = sim::firstPatternError(position_, {data, size});
    if (right != size)
        tally_.finding("a wrong byte at " + std::to_string(position_ + right));
    position_ += size;
    tally_.bytes += size;
    const int32_t unlocked = vexa_usb_data_stream_buffer_unlock(device_);
    if (unlocked != VEXA_USB_STATUS_DEVICE_REMOVED)
        isFine(unlocked, "unlock");
    return right == size;
}

void User::noteSilence(const std::string &finding) {
    if (settings_.foreign && !settings_.strict)
        ++tally_.silentStreams;
    else
        tally_.finding(finding);
}

// False when they may still come after a transfer that failed.
bool User::sendEvents() {
    std::vector<uint8_t> bytes(!eventsCame_ ? kFirstEventBytes : random(1, 64));
    for (uint8_t &byte : bytes)
        byte = static_cast<uint8_t>(random(kLowestEventByte, UINT8_MAX));
    inbox_->expectBytes(bytes);
    if (!isFine(control(sim::kRequestSendEvents, 0, 0, bytes.data(), bytes.size()), "events"))
        return false;
    const auto latency =
        inbox_->waitForBytes(settings_.foreign ? kForEventsThatMayBeLost : kPatience);
    if (latency) {
        tally_.addLatency(*latency);
        tally_.eventBytes += bytes.size();
        eventsCame_ = true;
    } else if (!inbox_->signs().removed &&
               !settings_.foreign) { // who ends an event pipe tells only the log
        tally_.finding("events did not come");
    }
    return latency.has_value();
}

void User::loopBack() {
    std::vector<uint8_t> sent(random(kMarkBytes, 100000));
    for (size_t i = 0; i < sent.size(); ++i)
        sent[i] = static_cast<uint8_t>(i < kMarkBytes ? engine_() : i * 7 + sent.size());
    if (!isFine(vexa_usb_bulk_write(device_, sim::kBulkLoopOut, sent.data(), sent.size()),
                "bulk write"))
        return;
    std::vector<uint8_t> received;
    size_t begin = 0; // what a user whose transfer ended early has left comes before that
    do {
        const size_t before = received.size();
        const size_t missing = sent.size() - (before - begin);
        received.resize(before + missing);
        if (!isFine(vexa_usb_bulk_read(device_, sim::kBulkLoopIn, &received[before], missing),
                    "bulk read"))
            return;
        const auto found =
            std::search(received.begin(), received.end(), sent.begin(), sent.begin() + kMarkBytes);
        begin = found != received.end() ? static_cast<size_t>(found - received.begin())
                                        : received.size() - (kMarkBytes - 1);
    } while (received.size() - begin < sent.size() && received.size() < kMostInLoop);
    const bool isSame = std::equal(received.begin() + static_cast<std::ptrdiff_t>(begin),
                                   received.end(), sent.begin(), sent.end());
    if (!isSame || !(begin == 0 || settings_.foreign || tally_.timeouts != 0))
        tally_.finding("what was looped back is not the same");
}

void User::pullDevice() {
    mayBeRemoved_ = true;
    sim::VanishRequest request{0, static_cast<uint32_t>(random(100, 1000)), 0,
                               static_cast<uint16_t>(random(0, 50))};
    // The device can be away before it has answered.
    isFine(control(sim::kRequestVanish, 0, 0, &request, sizeof(request)), "pull");
    while (drainOne()) {
    }
    if (inbox_->waitForEnd(News::Removed) != News::Removed)
        tally_.finding("nobody was told of a removal");
}

void User::end(Ending ending) {
    if (ending == Ending::Close)
        return;
    if (ending == Ending::Overflow) {
        const News news = inbox_->waitForEnd(News::Error);
        if (news == News::Silence)
            noteSilence("a stream that nobody drains does not end");
        tally_.overflows += news == News::Error ? 1 : 0;
    }
    if (isFine(vexa_usb_data_stream_stop(device_), "stop") &&
        inbox_->waitForEnd(News::Stopped) == News::Silence)
        tally_.finding("a stop was not told");
}

// The stream has ended by itself.  An error can be told a little before the removal that caused it.
void User::afterTheEnd() {
    if (mayBeRemoved_ &&
        inbox_->waitForEnd(News::Removed, kBetweenErrorAndRemoval) == News::Removed)
        return;
    if (inbox_->signs().error)
        ++tally_.lostStreams;
    end(Ending::Stop);
}

} // namespace endurance
