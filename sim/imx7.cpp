#include "imx7.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <memory>
#include <optional>
#include <utility>

#include "byte_order.h"

namespace sim {

namespace {

using namespace std::chrono_literals;

constexpr uint8_t kReportEndpoint = 0x81;
constexpr uint8_t kSetReport = 9;
constexpr uint8_t kClassInterface = 0x21;
constexpr uint16_t kCommandReport = 0x0201;
constexpr uint16_t kDataReport = 0x0202;
constexpr size_t kCommandSize = 17;
constexpr size_t kFileType = 16; // its offset in the command
constexpr size_t kMaxDataSize = 1025;

enum Command : uint16_t { kErrorStatus = 0x0505, kWriteFile = 0x0404, kJumpAddress = 0x0B0B };

constexpr uint32_t kOpen = 0x56787856; // security mode
constexpr uint32_t kNoError = 0xF0F0F0F0;
constexpr uint32_t kDone = 0x88888888;
constexpr uint32_t kWriteFailed = 0x33333333;
constexpr uint32_t kEntryWrong = 0x00333333;

// Vendor-defined reports: 1 and 2 out (16 and 1024 bytes), 3 and 4 in (4 and 64 bytes).
Bytes reportDescriptor() {
    Bytes bytes{0x06, 0x00, 0xFF, 0x09, 0x01, 0xA1, 0x01};
    const auto report = [&](uint8_t id, uint16_t count, uint8_t direction) {
        bytes.insert(bytes.end(), {0x85, id, 0x09, id, 0x15, 0x00, 0x26, 0xFF, 0x00, 0x75, 0x08});
        bytes.push_back(0x96);
        appendLittleEndian16(bytes, count);
        bytes.insert(bytes.end(), {direction, 0x02});
    };
    constexpr uint8_t kOutput = 0x91;
    constexpr uint8_t kInput = 0x81;
    report(1, 16, kOutput);
    report(2, 1024, kOutput);
    report(3, 4, kInput);
    report(4, 64, kInput);
    bytes.push_back(0xC0);
    return bytes;
}

DeviceShape asHid(DeviceShape shape) {
    shape.interfaceClass = 3;
    shape.endpoints = {{kReportEndpoint, EndpointType::Interrupt}};
    shape.reportDescriptor = reportDescriptor();
    const auto length = static_cast<uint8_t>(shape.reportDescriptor.size());
    shape.classDescriptor = {9, 0x21, 0x10, 0x01, 0, 1, kReportDescriptor, length, 0};
    return shape;
}

} // namespace

Imx7::Imx7(DeviceShape shape, const LoadBehaviour &behaviour, Stage stage, Bytes earlierStages)
    : BootDevice(asHid(std::move(shape)), behaviour),
      stage_(stage),
      earlierStages_(std::move(earlierStages)) {}

void Imx7::plugged(Port &port) {
    BootDevice::plugged(port);
    file_.clear();
    bytesLeft_ = 0;
    written_ = false;
    reports_.clear();
}

Answer Imx7::loadRequest(const Setup &setup, std::span<uint8_t> report) {
    if (setup.requestType != kClassInterface || setup.request != kSetReport || setup.index != 0 ||
        report.empty() || report[0] != (setup.value & 0xFF))
        return Answer::stall();
    if (setup.value == kCommandReport && report.size() == kCommandSize)
        return command(report);
    if (setup.value == kDataReport && report.size() <= kMaxDataSize && bytesLeft_ != 0)
        return data(report);
    return Answer::stall();
}

Answer Imx7::command(std::span<const uint8_t> report) {
    const uint16_t type = bigEndian16(report.subspan(1));
    const uint32_t address = bigEndian32(report.subspan(3));
    const uint32_t count = bigEndian32(report.subspan(8));
    if (bytesLeft_ != 0 && type != kErrorStatus)
        return Answer::stall();
    switch (type) {
    case kErrorStatus: // a host begins with it, so it resets all
        bytesLeft_ = 0;
        written_ = false;
        reports_.clear();
        answer(kNoError);
        break;
    case kWriteFile:
        fileAddress_ = address;
        fileHasType_ = report[kFileType] != 0;
        file_.clear();
        bytesLeft_ = count;
        written_ = false;
        if (count == 0)
            writeEnded();
        break;
    case kJumpAddress:
        jump(address);
        break;
    default:
        return Answer::stall();
    }
    return Answer::done(report.size());
}

// All reports have the same length; the bytes after the end of the file are dropped.
Answer Imx7::data(std::span<const uint8_t> report) {
    const auto bytes = report.subspan(1, std::min<size_t>(report.size() - 1, bytesLeft_));
    file_.insert(file_.end(), bytes.begin(), bytes.end());
    bytesLeft_ -= static_cast<uint32_t>(bytes.size());
    if (bytesLeft_ == 0)
        writeEnded();
    return Answer::done(report.size());
}

void Imx7::writeEnded() {
    written_ = isWritable(fileAddress_, static_cast<uint32_t>(file_.size())) && !statusIsBad();
    answer(written_ ? kDone : kWriteFailed);
}

void Imx7::jump(uint32_t address) {
    const bool good = written_ && hasEntry(address);
    if (good && fileHasType_)
        answer(std::nullopt);
    else
        answer(good ? kDone : kEntryWrong);
    if (good)
        later(100ms, [this]() { startNext(); });
    written_ = false; // a file can be entered only once
}

void Imx7::startNext() {
    Bytes all = earlierStages_;
    all.insert(all.end(), file_.begin(), file_.end());
    if (stage_ == Stage::Loader)
        start(std::move(all));
    else
        startAs(std::make_unique<Imx7>(shape(), behaviour(), Stage::Loader, std::move(all)));
}

bool Imx7::isWritable(uint32_t address, uint32_t count) const {
    const auto within = [&](uint64_t first, uint64_t end) {
        return address >= first && uint64_t{address} + count <= end;
    };
    return within(0x00900000, 0x00980000) ||
           (stage_ == Stage::Loader && within(0x80000000, 0x100000000));
}

bool Imx7::hasEntry(uint32_t address) const {
    constexpr size_t kHeader = 24; // the bytes of either header up to the last one examined
    if (address < fileAddress_ || address - fileAddress_ + kHeader > file_.size())
        return false;
    const auto header = std::span(file_).subspan(address - fileAddress_);
    if (stage_ == Stage::Loader)
        return bigEndian32(header) == 0x27051956;
    return header[0] == 0xD1 && littleEndian32(header.subspan(20)) == address;
}

void Imx7::answer(std::optional<uint32_t> status) {
    Bytes security{3};
    appendBigEndian32(security, kOpen);
    reports_.push_back(std::move(security));
    if (status) {
        Bytes result{4};
        appendBigEndian32(result, *status);
        result.resize(65);
        reports_.push_back(std::move(result));
    }
    port().wake({});
}

Answer Imx7::sendData(uint8_t endpoint, std::span<uint8_t> room) {
    if (endpoint != kReportEndpoint)
        return Answer::stall();
    if (reports_.empty())
        return Answer::wait();
    const Bytes report = std::move(reports_.front());
    reports_.pop_front();
    return sendBytes(report, room);
}

} // namespace sim
