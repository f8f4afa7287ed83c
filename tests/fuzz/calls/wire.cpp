#include "fuzz/calls/wire.h"

#include <algorithm>
#include <array>
#include <cstddef>

#include "support/allocations.h"
#include "vexa_usb.h"

namespace {

constexpr uint8_t kGetStatus = 3; // of DFU
constexpr uint32_t kFx3Words = 600;

} // namespace

int32_t Wire::Transfer::status() const {
    if (result >= 0)
        return isBad() ? VEXA_USB_STATUS_NOT_ALL_DATA_TRANSFERRED : VEXA_USB_STATUS_SUCCESS;
    return result == LIBUSB_ERROR_TIMEOUT ? VEXA_USB_STATUS_TIMEOUT : VEXA_USB_STATUS_UNKNOWN;
}

void Wire::install() {
    fake::onTransfer([](uint8_t /*endpoint*/, uint8_t *data, int length, int *actual) {
        fake::deliverEvents();
        const int result = current->answer(0, data, length);
        *actual = std::max(result, 0);
        return std::min(result, 0);
    });
    fake::onControl([](const fake::ControlRequest &request) {
        return current->answer(request.request, request.data, request.length);
    });
}

int Wire::plannedResult(int asked) const {
    constexpr std::array<int, 3> kErrors{LIBUSB_ERROR_TIMEOUT, LIBUSB_ERROR_PIPE,
                                         LIBUSB_ERROR_OVERFLOW};
    const unsigned first = (plan_ & 15U) * (plan_ & 15U);
    const unsigned times = (plan_ & 64U) != 0 ? 5 : 1;
    const unsigned how = plan_ >> 4U & 3U;
    if (!isThere_)
        return LIBUSB_ERROR_NO_DEVICE;
    if (first == 225 || transfers.size() < first || transfers.size() >= first + times)
        return asked;
    return how == kErrors.size() ? asked / 2 : kErrors[how];
}

int Wire::answer(uint8_t request, uint8_t *data, int asked) {
    const allocations::Exempt exempt;
    const int result = plannedResult(asked);
    if (request == kGetStatus && result == 6) { // busy for a millisecond, then idle or in error
        const bool isBusy = ++polls_ % 2 != 0;
        data[0] = isBusy || !refusesFirmware() ? 0 : 1;
        data[1] = 1;
        data[4] = isBusy ? 4 : refusesFirmware() ? 10 : 5;
    } else if (request == 0) {
        std::fill_n(data, std::max(result, 0), static_cast<uint8_t>(0x88));
    }
    transfers.push_back({request, asked, result});
    return result;
}

int32_t Wire::firstStatus() const {
    const auto bad = std::find_if(transfers.begin(), transfers.end(),
                                  [](const Transfer &one) { return one.isBad(); });
    return bad == transfers.end() ? VEXA_USB_STATUS_SUCCESS : bad->status();
}

Image::Image(uint8_t operation, uint8_t choice) : loader(operation), isSpoiled(choice % 2 != 0) {
    constexpr std::array<uint8_t, 4> kUboot{0x27, 0x05, 0x19, 0x56};
    if (choice == UINT8_MAX)
        return; // none
    if (loader == 28) {
        bytes = {1, 0x2F, 0xFF, 0, 7, 0xCA, 1, 0x30, 0, 0, 7, 0xC8, 0, 0, 0, 1, 0xFF};
    } else if (loader == 30) {
        for (const uint32_t word : {0U, kFx3Words, 0x40000000U})
            append(word);
        bytes.resize(bytes.size() + size_t{4} * kFx3Words);
        for (const uint32_t word : {0U, 0x1000U, 0U})
            append(word);
    } else {
        bytes.resize(64 + size_t{40} * choice);
        std::copy(kUboot.begin(), kUboot.end(), bytes.begin());
        if (loader == 32)
            std::fill_n(bytes.begin(), kUboot.size(), static_cast<uint8_t>(0));
        bytes[0] = loader == 32 ? 0xD1 : bytes[0];
    }
    if (isSpoiled)
        bytes[choice / 2U % bytes.size()] ^= 2;
}

void Image::append(uint32_t word) {
    for (unsigned shift = 0; shift < 32; shift += 8)
        bytes.push_back(static_cast<uint8_t>(word >> shift));
}

// The FX3's jump may fail, and the i.MX7's commands and first report are tried five times.
int32_t Image::expected(const Wire &wire) const {
    const int32_t first = wire.firstStatus();
    const Wire::Transfer last = wire.last();
    const bool isBlock = last.request == 1 && last.asked > 0;
    if (loader == 30)
        return last.asked == 0 ? VEXA_USB_STATUS_SUCCESS : first;
    if (loader == 31 && last.isBad() && !isBlock)
        return last.status();
    if (loader == 31)
        return isBlock || wire.refusesFirmware() ? VEXA_USB_STATUS_UNKNOWN : 0;
    if (loader == 32 || loader == 33)
        return last.isBad() ? VEXA_USB_STATUS_UNKNOWN : VEXA_USB_STATUS_SUCCESS;
    return loader == 34 ? VEXA_USB_STATUS_NOT_SUPPORTED : first;
}
