#include "connection.h"

#include <algorithm>
#include <cerrno>
#include <span>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

namespace sim {

using namespace usbip;

namespace {

constexpr size_t kMaxPending = 256U << 20;  // bytes; far more than a kernel has in flight
constexpr size_t kMaxUnlinkedEarly = 4096;  // a kernel has one at a time, or a few
constexpr uint32_t kNoPackets = 0xFFFFFFFF; // some clients send it, others 0, if not isochronous

uint8_t endpointAddress(const CommandHeader &header) {
    if (header.endpoint == 0)
        return 0;
    return static_cast<uint8_t>(header.endpoint | (header.in ? kEndpointIn : 0));
}

void checkSubmit(const CommandHeader &header) {
    if (header.endpoint > 15)
        throw std::runtime_error(fmt::format("there is no endpoint {}", header.endpoint));
    if (header.length > kMaxTransfer)
        throw std::runtime_error(fmt::format("transfer of {} bytes", header.length));
    if (header.packets != 0 && header.packets != kNoPackets)
        throw std::runtime_error("isochronous transfers are not simulated");
    if (header.endpoint == 0 && header.length > header.setup.length)
        throw std::runtime_error("control transfer longer than its setup packet says");
    if (header.endpoint == 0 && header.length > 0 && header.in != header.setup.isIn())
        throw std::runtime_error("control transfer against its setup packet's direction");
}

} // namespace

Connection::Connection(int descriptor, Devices &devices) : socket_(descriptor), devices_(devices) {}

Connection::~Connection() {
    release();
}

bool Connection::work(bool readable) {
    bool peerIsThere = true;
    if (readable)
        peerIsThere = socket_.receive();
    // A client that does not read its answers gets no more of them until it does.
    while (phase_ < Phase::Ending && !socket_.isFull() && handleInput()) {
    }
    if (device_ != nullptr)
        offerAll();
    const bool canSend = socket_.flush();
    if (phase_ == Phase::Ending && socket_.drained())
        endSending();
    if (phase_ >= Phase::Ending)
        socket_.discard();
    return canSend && peerIsThere;
}

// Closing the socket would not do: what the client has sent meanwhile would make it a reset, upon
// which the kernel's driver may end the connection before it has read the last answers.
void Connection::endSending() {
    phase_ = Phase::AwaitingClose;
    release();
    pending_.clear();
    pendingBytes_ = 0;
    unlinkedEarly_.clear();
    socket_.endOutput();
}

void Connection::release() {
    if (device_ != nullptr)
        device_->released();
    device_ = nullptr;
}

bool Connection::handleInput() {
    return device_ == nullptr ? handleOperation() : handleCommand();
}

bool Connection::handleOperation() {
    const auto input = socket_.received();
    if (input.size() < kOperationSize)
        return false;
    const OperationHeader header = parseOperation(input.first<kOperationSize>());
    if (header.version != kVersion)
        throw std::runtime_error(fmt::format("USB/IP version {:#06x}; version {:#06x} is expected",
                                             header.version, kVersion));
    if (header.operation == kRequestDeviceList) {
        socket_.consume(kOperationSize);
        replyDeviceList();
        return true;
    }
    if (header.operation != kRequestImport)
        throw std::runtime_error(fmt::format("unknown operation {:#06x}", header.operation));
    if (input.size() < kOperationSize + kBusIdSize)
        return false;
    const auto name = input.subspan<kOperationSize, kBusIdSize>();
    const std::string busId(name.begin(), std::find(name.begin(), name.end(), 0));
    socket_.consume(kOperationSize + kBusIdSize);
    importDevice(busId);
    return true;
}

void Connection::replyDeviceList() {
    Bytes reply = operationReply(kReplyDeviceList, OperationStatus::Ok);
    const auto count = std::count_if(devices_.begin(), devices_.end(),
                                     [](const ExportedDevice &each) { return each.isAvailable(); });
    appendCount(reply, static_cast<uint32_t>(count));
    for (ExportedDevice &each : devices_) {
        if (!each.isAvailable())
            continue;
        appendDevice(reply, each.name(), each.model().shape());
        appendInterfaces(reply, each.model().shape());
    }
    socket_.send(reply);
}

void Connection::importDevice(const std::string &busId) {
    const auto found =
        std::find_if(devices_.begin(), devices_.end(), [&](const ExportedDevice &candidate) {
            return candidate.name().busId == busId;
        });
    if (found == devices_.end() || !found->isAvailable()) {
        socket_.send(operationReply(kReplyImport, found == devices_.end()
                                                      ? OperationStatus::NoDevice
                                                      : OperationStatus::Busy));
        return;
    }
    device_ = &*found;
    Bytes reply = operationReply(kReplyImport, OperationStatus::Ok);
    appendDevice(reply, device_->name(), device_->model().shape());
    socket_.send(reply);
    device_->imported(this);
}

bool Connection::handleCommand() {
    const auto input = socket_.received();
    if (input.size() < kHeaderSize)
        return false;
    const CommandHeader header = parseCommand(input.first<kHeaderSize>());
    switch (header.command) {
    case kSubmit:
        return handleSubmit(header);
    case kUnlink:
        socket_.consume(kHeaderSize);
        handleUnlink(header);
        return true;
    default:
        throw std::runtime_error(fmt::format("unknown command {:#x}", header.command));
    }
}

bool Connection::handleSubmit(const CommandHeader &header) {
    checkSubmit(header);
    const size_t dataSize = header.in ? 0 : header.length;
    const auto input = socket_.received();
    if (input.size() < kHeaderSize + dataSize)
        return false;
    lastSubmitted_ = header.sequence;
    if (const auto early = unlinkedEarly_.extract(header.sequence)) {
        socket_.consume(kHeaderSize + dataSize);
        replyToUnlink(early.mapped(), -ECONNRESET);
        return true;
    }
    pendingBytes_ += sizeof(Transfer) + dataSize;
    if (pendingBytes_ > kMaxPending)
        throw std::runtime_error("too many transfers at once");
    const auto data = input.subspan(kHeaderSize, dataSize);
    const uint8_t endpoint = endpointAddress(header);
    pending_[endpoint].push_back(
        {header.sequence, header.length, header.in, header.setup, Bytes(data.begin(), data.end())});
    socket_.consume(kHeaderSize + dataSize);
    offer(endpoint);
    return true;
}

// Status 0 tells the client that the transfer had been answered before.
//
// The kernel's driver sends first what was submitted, then what was unlinked; so when a transfer is
// submitted and unlinked between the two, the unlink comes first.  Such an unlink is answered when
// its transfer has come: before that the kernel would look in vain for what it is to take back. But
// an unlink that comes first of all is of a transfer of the last connection to the same port, and
// the kernel waits for its answer before it submits anything.
void Connection::handleUnlink(const CommandHeader &header) {
    const bool found = withdraw(header.unlinkSequence);
    const bool mayCome =
        lastSubmitted_ && static_cast<int32_t>(header.unlinkSequence - *lastSubmitted_) > 0;
    if (found || !mayCome) {
        replyToUnlink(header.sequence, found ? -ECONNRESET : 0);
        return;
    }
    unlinkedEarly_[header.unlinkSequence] = header.sequence;
    if (unlinkedEarly_.size() > kMaxUnlinkedEarly)
        throw std::runtime_error("too many unlinks of what was not submitted");
}

void Connection::replyToUnlink(uint32_t sequence, int32_t status) {
    OutputPiece reply(kHeaderSize);
    writeUnlinkReply(reply.all().first<kHeaderSize>(), sequence, status);
    socket_.send(std::move(reply));
}

bool Connection::withdraw(uint32_t sequence) {
    for (auto &[endpoint, transfers] : pending_) {
        const auto found =
            std::find_if(transfers.begin(), transfers.end(),
                         [&](const Transfer &transfer) { return transfer.sequence == sequence; });
        if (found == transfers.end())
            continue;
        subtractPending(*found);
        transfers.erase(found);
        device_->model().withdrawn(endpoint);
        return true;
    }
    return false;
}

void Connection::subtractPending(const Transfer &transfer) {
    pendingBytes_ -= sizeof(Transfer) + transfer.data.size();
}

void Connection::offerAll() {
    for (auto &[endpoint, transfers] : pending_)
        offer(endpoint);
}

void Connection::offerPending() {
    offerAll();
    if (onOutput)
        onOutput();
}

void Connection::deviceLeft() {
    if (phase_ == Phase::Serving)
        phase_ = Phase::DeviceGone;
}

// Wakes the connection even if there is nothing to send, so that it ends.
void Connection::disconnect() {
    phase_ = Phase::Ending;
    if (onOutput)
        onOutput();
}

void Connection::offer(uint8_t endpoint) {
    std::deque<Transfer> &transfers = pending_[endpoint];
    while (!transfers.empty() && phase_ == Phase::Serving && !socket_.isFull() &&
           answer(endpoint, transfers.front())) {
        subtractPending(transfers.front());
        transfers.pop_front();
    }
}

bool Connection::answer(uint8_t endpoint, Transfer &transfer) {
    OutputPiece reply(kHeaderSize + (transfer.in ? transfer.length : 0));
    const Answer given =
        ask(device_->model(), endpoint, transfer, reply.all().subspan(kHeaderSize));
    if (given.kind == Answer::Kind::Wait)
        return false;
    writeSubmitReply(reply.all().first<kHeaderSize>(), transfer.sequence, given.status,
                     static_cast<uint32_t>(given.length));
    reply.shorten(kHeaderSize + (transfer.in ? given.length : 0));
    socket_.send(std::move(reply));
    return true;
}

Answer Connection::ask(DeviceModel &model, uint8_t endpoint, Transfer &transfer,
                       std::span<uint8_t> room) {
    if (endpoint == 0)
        return model.control(transfer.setup, transfer.in ? room : std::span(transfer.data));
    return transfer.in ? model.in(endpoint, room) : model.out(endpoint, transfer.data);
}

} // namespace sim
