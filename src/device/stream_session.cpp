#include "device/stream_session.h"

#include <cinttypes>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "core/log.h"
#include "core/transfer_status.h"
#include "core/usb_connection.h"
#include "core/usbfs_limit.h"
#include "device/endpoint_error.h"
#include "device/shared_buffers.h"

namespace vexausb {

namespace {

constexpr size_t kStreamTransferCount = 3;
constexpr uint64_t kStreamMaxTransferSize = 524288;

} // namespace

std::shared_ptr<StreamSession> StreamSession::make(UsbConnection &connection,
                                                   const Settings &settings,
                                                   std::shared_ptr<DeviceEventQueue> events,
                                                   const DeviceName &name) {
    const int packetSize = connection.maxPacketSize(settings.endpoint);
    if (packetSize <= 0)
        throw EndpointError("the endpoint has no packet size");
    auto session = std::make_shared<StreamSession>(
        Key(), connection, settings, static_cast<uint64_t>(packetSize), std::move(events), name);
    connection.attach(session);
    return session;
}

StreamSession::StreamSession(Key /*key*/, const UsbConnection &connection, const Settings &settings,
                             uint64_t packetSize, std::shared_ptr<DeviceEventQueue> events,
                             const DeviceName &name)
    : TransferSet(makeSlots(), connection.handle(), settings.endpoint),
      ring_(settings.bufferSize, settings.bufferCount, kStreamMaxTransferSize, packetSize,
            SharedBuffers::make(connection,
                                DataStream::allocationSizeFor(settings.bufferSize, packetSize),
                                settings.bufferCount, name)),
      mode_(settings.mode),
      events_(std::move(events)),
      deviceName_(name),
      started_(DeviceEventQueue::prepare(VEXA_USB_DEVICE_EVENT_DATA_STREAM_STARTED)),
      error_(DeviceEventQueue::prepare(VEXA_USB_DEVICE_EVENT_DATA_STREAM_ERROR)) {}

TransferSet::Slots StreamSession::makeSlots() {
    Slots slots(kStreamTransferCount);
    for (auto &slot : slots)
        slot = std::make_unique<Piece>();
    return slots;
}

void StreamSession::begin() {
    const MutexLock lock(mutex_);
    logLine(LogLevel::Info, "%s: stream on endpoint 0x%02x started%s", deviceName_.text(),
            static_cast<unsigned>(slots_.front()->transfer->endpoint),
            mode_ == StreamMode::Strict ? ", strict" : "");
    for (const auto &slot : slots_) {
        if (failed_ || stopRequested_)
            release(*slot);
        else
            submitNextTransfer(static_cast<Piece &>(*slot));
    }
    events_->post(started_);
}

void StreamSession::completed(Slot &slot) {
    auto &piece = static_cast<Piece &>(slot);
    if (acceptsMoreAfter(piece)) {
        submitNextTransfer(piece);
        return;
    }
    release(piece);
    if (isIdle() && !failed_ && !stopRequested_)
        logSilentEnd();
}

bool StreamSession::acceptsMoreAfter(const Piece &piece) {
    const libusb_transfer &transfer = *piece.transfer;
    const bool ended = failed_ || stopRequested_;
    const bool completed = transfer.status == LIBUSB_TRANSFER_COMPLETED;
    const bool whole = completed && transfer.actual_length == transfer.length;
    if (!whole && !ended)
        logBadTransfer(transfer);
    if (mode_ == StreamMode::Strict && (ended || !whole)) {
        if (!ended)
            fail();
        return false;
    }
    if (!completed)
        return false;
    bytesReceived_ += static_cast<uint64_t>(transfer.actual_length);
    return postFull(ring_.transferCompleted(piece.info)) && !ended;
}

bool StreamSession::postFull(uint64_t buffers) {
    for (; buffers > 0; --buffers) {
        if (!events_->tryPost(VEXA_USB_DEVICE_EVENT_DATA_STREAM_BUFFER_FULL)) {
            logLine(LogLevel::Error, "%s: no memory for an event of the stream, which ends",
                    deviceName_.text());
            fail();
            return false;
        }
        ++buffersReported_;
    }
    return true;
}

void StreamSession::submitNextTransfer(Piece &piece) {
    if (submitPiece(piece))
        return;
    release(piece);
    fail();
}

bool StreamSession::submitPiece(Piece &piece) {
    if (!ring_.nextTransfer(piece.info)) {
        logFullRing();
        return false;
    }
    const int result =
        submit(piece, piece.info.destination, static_cast<int>(piece.info.transferLength));
    if (result != LIBUSB_SUCCESS)
        logRefusedTransfer(result);
    return result == LIBUSB_SUCCESS;
}

// Ends the run: what is in flight is cancelled, so that nothing gets written behind the gap.
void StreamSession::fail() {
    failed_ = true;
    cancelAll();
    ring_.releaseUnused();
    events_->post(error_);
}

void StreamSession::logBadTransfer(const libusb_transfer &transfer) const {
    const char *consequence = "the rest of it is missing from the stream";
    if (mode_ == StreamMode::Strict)
        consequence = "the stream ends; stop it, and start it again";
    else if (transfer.status != LIBUSB_TRANSFER_COMPLETED)
        consequence = "its piece is missing from the stream, and one transfer fewer goes on";
    logLine(LogLevel::Error,
            "%s: stream on endpoint 0x%02x, after %" PRIu64 " bytes: %s with %d of %d bytes; %s%s",
            deviceName_.text(), static_cast<unsigned>(transfer.endpoint), bytesReceived_,
            transferStatusName(transfer.status), transfer.actual_length, transfer.length,
            consequence,
            mode_ == StreamMode::Strict ? "" : " (VEXA_USB_STREAM=strict ends it here)");
}

// Where the last transfer has failed by itself, no event tells of the end.
void StreamSession::logSilentEnd() const {
    logLine(LogLevel::Error,
            "%s: the stream has ended after %" PRIu64
            " bytes: no transfer is left, and no event will come; stop it, and start it again",
            deviceName_.text(), bytesReceived_);
}

void StreamSession::logFullRing() const {
    const uint64_t released = ring_.buffersReleased();
    logLine(LogLevel::Error,
            "%s: the stream ends after %" PRIu64
            " bytes: no buffer is free, the caller holds %" PRIu64
            " that were reported full; give buffers back sooner, or start with more of them",
            deviceName_.text(), bytesReceived_,
            buffersReported_ > released ? buffersReported_ - released : 0);
}

void StreamSession::logRefusedTransfer(int result) const {
    logLine(LogLevel::Error,
            "%s: the stream ends after %" PRIu64 " bytes: a transfer was refused: %s%s",
            deviceName_.text(), bytesReceived_, libusb_error_name(result),
            refusalAdvice(result).text.data());
}

} // namespace vexausb
