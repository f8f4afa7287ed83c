#include "dfu_device.h"

#include <algorithm>
#include <array>
#include <utility>

#include "byte_order.h"

namespace sim {

namespace {

enum Request : uint8_t {
    kDfuDetach = 0,
    kDfuDownload = 1,
    kDfuUpload = 2,
    kDfuGetStatus = 3,
    kDfuClearStatus = 4,
    kDfuGetState = 5,
    kDfuAbort = 6,
};

constexpr uint8_t kClassInterface = 0x21;
constexpr uint16_t kTransferSize = 4096;
constexpr size_t kMaxImageSize = 16U << 20;

bool isRead(uint8_t request) {
    return request == kDfuUpload || request == kDfuGetStatus || request == kDfuGetState;
}

DeviceShape inDfuMode(DeviceShape shape) {
    shape.interfaceClass = 0xFE;
    shape.interfaceSubClass = 1;
    shape.interfaceProtocol = 2;
    // Can download and upload, does not answer while it manifests.
    shape.classDescriptor = {9, 0x21, 0x03};
    appendLittleEndian16(shape.classDescriptor, 0); // detach time-out
    appendLittleEndian16(shape.classDescriptor, kTransferSize);
    appendLittleEndian16(shape.classDescriptor, 0x0110); // version of DFU
    return shape;
}

} // namespace

DfuDevice::DfuDevice(DeviceShape shape, const LoadBehaviour &behaviour)
    : BootDevice(inDfuMode(std::move(shape)), behaviour) {}

void DfuDevice::plugged(Port &port) {
    BootDevice::plugged(port);
    state_ = State::Idle;
    status_ = Status::Ok;
    image_.clear();
}

Answer DfuDevice::loadRequest(const Setup &setup, std::span<uint8_t> data) {
    if ((setup.requestType & ~kRequestIn) != kClassInterface || setup.index != 0)
        return Answer::stall();
    advance();
    if (setup.isIn() != isRead(setup.request) || state_ == State::DownloadBusy ||
        state_ == State::Manifest)
        return refuse();
    switch (setup.request) {
    case kDfuDetach:
        return detach(setup);
    case kDfuDownload:
        return download(setup, data);
    case kDfuUpload:
        return upload(setup, data);
    case kDfuGetStatus:
        return getStatus(data);
    case kDfuClearStatus:
        return clearStatus();
    case kDfuGetState:
        return sendBytes(std::array{static_cast<uint8_t>(state_)}, data);
    case kDfuAbort:
        return abort();
    default:
        return refuse();
    }
}

Answer DfuDevice::download(const Setup &setup, std::span<const uint8_t> data) {
    const bool first = state_ == State::Idle;
    if ((!first && state_ != State::DownloadIdle) || setup.length > kTransferSize ||
        (first && setup.length == 0))
        return refuse();
    if (first) {
        image_.clear();
        nextBlock_ = setup.value;
    }
    if (setup.value != nextBlock_++)
        return refuse();
    if (setup.length == 0) {
        state_ = State::ManifestSync;
        return Answer::done(0);
    }
    if (image_.size() + data.size() > kMaxImageSize) {
        fail(Status::AddressOutOfRange);
        return Answer::done(data.size());
    }
    state_ = State::DownloadSync;
    isWritten_ = false;
    image_.insert(image_.end(), data.begin(), data.end());
    return Answer::done(data.size());
}

Answer DfuDevice::upload(const Setup &setup, std::span<uint8_t> room) {
    if ((state_ != State::Idle && state_ != State::UploadIdle) || setup.length > kTransferSize)
        return refuse();
    if (std::exchange(state_, State::UploadIdle) == State::Idle)
        uploaded_ = 0;
    const Answer answer = sendBytes(std::span(image_).subspan(uploaded_), room);
    uploaded_ += answer.length;
    if (answer.length < setup.length)
        state_ = State::Idle;
    return answer;
}

// The first request for the status after a block starts the work on it.  The first one after that
// work has taken its time reports its end.
Answer DfuDevice::getStatus(std::span<uint8_t> room) {
    if (statusIsBad())
        fail(Status::WriteFailed);
    if (state_ == State::DownloadSync && (isWritten_ || behaviour().poll.count() == 0))
        state_ = State::DownloadIdle;
    else if (state_ == State::DownloadSync)
        beginWork(State::DownloadBusy);
    else if (state_ == State::ManifestSync)
        beginWork(State::Manifest);
    else if (state_ == State::ManifestWaitReset)
        startAfter(behaviour().linger);
    const bool busy = state_ == State::DownloadBusy || state_ == State::Manifest;
    std::array<uint8_t, 6> answer{static_cast<uint8_t>(status_)};
    // The poll time has three bytes; the state takes the place of the fourth.
    if (busy)
        putLittleEndian32(std::span(answer).subspan(1),
                          static_cast<uint32_t>(behaviour().poll.count()));
    answer[4] = static_cast<uint8_t>(state_);
    return sendBytes(answer, room);
}

void DfuDevice::beginWork(State work) {
    state_ = work;
    busyUntil_ = Clock::now() + behaviour().poll;
    if (work == State::Manifest)
        startAfter(behaviour().poll + behaviour().linger);
}

void DfuDevice::startAfter(std::chrono::milliseconds delay) {
    later(delay, [this, number = ++startNumber_]() {
        if (number == startNumber_)
            start(image_);
    });
}

// With it the host announces that it will reset the bus within that time.
Answer DfuDevice::detach(const Setup &setup) {
    if (state_ != State::ManifestWaitReset)
        return refuse();
    startAfter(std::chrono::milliseconds(setup.value));
    return Answer::done(0);
}

// Enters the state that the device has reached by itself since the last request.
void DfuDevice::advance() {
    if (Clock::now() < busyUntil_)
        return;
    if (state_ == State::DownloadBusy) {
        state_ = State::DownloadSync;
        isWritten_ = true;
    } else if (state_ == State::Manifest) {
        state_ = State::ManifestWaitReset;
    }
}

Answer DfuDevice::clearStatus() {
    if (state_ != State::Error)
        return refuse();
    state_ = State::Idle;
    status_ = Status::Ok;
    return Answer::done(0);
}

Answer DfuDevice::abort() {
    if (state_ != State::Idle && state_ != State::DownloadIdle && state_ != State::UploadIdle)
        return refuse();
    state_ = State::Idle;
    return Answer::done(0);
}

void DfuDevice::fail(Status reason) {
    ++startNumber_;
    state_ = State::Error;
    status_ = reason;
}

Answer DfuDevice::refuse() {
    fail(Status::StalledPacket);
    return Answer::stall();
}

} // namespace sim
