#include "firmware/imx7.h"

#include <algorithm>
#include <array>
#include <cstddef>

#include "firmware/formats/byte_order.h"
#include "firmware/formats/imx7_image.h"
#include "firmware/requests.h"

namespace vexausb {

namespace {

constexpr uint8_t kReportEndpoint = 0x81;
constexpr uint8_t kSetReport = 9;
constexpr uint16_t kOutputReport = 0x0200; // wValue of SET_REPORT; the report ID is added
constexpr uint8_t kGetDescriptor = 6;
constexpr uint16_t kReportDescriptor = 0x2200;
constexpr size_t kReportDescriptorSize = 76;

constexpr uint8_t kCommandReport = 1;
constexpr uint8_t kDataReport = 2;
constexpr size_t kDataPerReport = 1024;
constexpr uint8_t kWriteComplete = 0x88; // the status is four such bytes
constexpr int kAttempts = 5;

enum class Command : uint16_t {
    ErrorStatus = 0x0505,
    WriteFile = 0x0404,
    JumpAddress = 0x0B0B,
};

using CommandReport = std::array<uint8_t, 17>;
using DataReport = std::array<uint8_t, 1 + kDataPerReport>;
using SecurityReport = std::array<uint8_t, 5>;
using StatusReport = std::array<uint8_t, 65>;

template <typename Attempt>
bool withinAttempts(Attempt attempt) {
    for (int i = 0; i < kAttempts; ++i) {
        if (attempt())
            return true;
    }
    return false;
}

template <typename Report>
bool sendReport(AbstractDevice &device, const Report &report) {
    return classWrite(device, kSetReport, static_cast<uint16_t>(kOutputReport | report[0]),
                      report.data(), report.size()) == VEXA_USB_STATUS_SUCCESS;
}

template <typename Report>
bool readReport(AbstractDevice &device, Report &report) {
    report = {};
    return device.interruptRead(kReportEndpoint, report.data(), report.size(), nullptr) ==
           VEXA_USB_STATUS_SUCCESS;
}

bool imx7SendCommand(AbstractDevice &device, Command command, uint32_t address = 0,
                     uint32_t count = 0) {
    CommandReport report{kCommandReport};
    putBigEndian16(&report[1], static_cast<uint16_t>(command));
    putBigEndian32(&report[3], address);
    putBigEndian32(&report[8], count);
    return withinAttempts([&]() { return sendReport(device, report); });
}

bool readSecurity(AbstractDevice &device) {
    SecurityReport report;
    return readReport(device, report);
}

bool readStatus(AbstractDevice &device) {
    StatusReport report;
    return readReport(device, report);
}

bool readWriteComplete(AbstractDevice &device) {
    StatusReport report;
    return readReport(device, report) &&
           std::all_of(report.begin() + 1, report.begin() + 5,
                       [](uint8_t byte) { return byte == kWriteComplete; });
}

// The last report is as long as the others; its bytes after the image are those of the report
// before.
bool sendData(AbstractDevice &device, std::span<const uint8_t> image) {
    DataReport report{kDataReport};
    while (!image.empty()) {
        const auto chunk = image.first(std::min(image.size(), kDataPerReport));
        std::copy(chunk.begin(), chunk.end(), report.begin() + 1);
        if (!sendReport(device, report))
            return false;
        image = image.subspan(chunk.size());
    }
    return true;
}

bool imx7WriteFile(AbstractDevice &device, std::span<const uint8_t> image, uint32_t address) {
    return imx7SendCommand(device, Command::ErrorStatus) &&
           withinAttempts([&]() { return readSecurity(device); }) && readStatus(device) &&
           imx7SendCommand(device, Command::WriteFile, address,
                           static_cast<uint32_t>(image.size())) &&
           sendData(device, image) && readSecurity(device) && readWriteComplete(device);
}

bool writeAndJump(AbstractDevice &device, std::span<const uint8_t> image, uint32_t address) {
    return imx7WriteFile(device, image, address) &&
           imx7SendCommand(device, Command::JumpAddress, address) && readSecurity(device) &&
           readStatus(device);
}

} // namespace

bool imx7LoadSpl(AbstractDevice &device, std::span<const uint8_t> image) {
    const auto address = imx7SplAddress(image);
    return address && writeAndJump(device, image, *address);
}

// Some boot ROMs expect that their report descriptor is read first.  It does not matter whether
// that succeeds.
bool imx7LoadUboot(AbstractDevice &device, std::span<const uint8_t> image) {
    std::array<uint8_t, kReportDescriptorSize> descriptor{};
    device.controlTransfer(VEXA_USB_DIRECTION_IN, VEXA_USB_TYPE_STANDARD, VEXA_USB_RECIPIENT_DEVICE,
                           kGetDescriptor, kReportDescriptor, 0, descriptor.data(),
                           descriptor.size(), nullptr);
    const auto address = imx7UbootAddress(image);
    return address && writeAndJump(device, image, *address);
}

} // namespace vexausb
