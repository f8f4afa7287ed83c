#include "firmware/fx2.h"

#include <chrono>
#include <thread>

#include "firmware/formats/hex_parser.h"
#include "firmware/fx2_loader_image.h"
#include "firmware/requests.h"

namespace vexausb {

namespace {

constexpr uint16_t kCpuControl = 0xE600; // CPUCS; bit 0 holds the 8051 in reset
constexpr uint16_t kLoaderMemory = 0x3000;
constexpr uint8_t kLoaderRequest = 0xA3;
constexpr uint8_t kRenumerateRequest = 0xD2;
constexpr std::chrono::microseconds kCpuTime{100};
constexpr std::chrono::milliseconds kStartTime{50};

enum class Cpu : uint8_t { Released = 0, Held = 1 };

int32_t setCpu(AbstractDevice &device, Cpu state) {
    const auto value = static_cast<uint8_t>(state);
    const int32_t status = memoryWrite(device, kCpuControl, &value, sizeof(value));
    std::this_thread::sleep_for(kCpuTime);
    return status;
}

// Calls `write` for each record before the End Of File record that is selected, of any type, until
// one fails.
template <typename Selected, typename Write>
int32_t writeRecords(const HexRecords &records, Selected selected, Write write) {
    for (const HexRecord &record : records) {
        if (record.type == kHexEndOfFile)
            break;
        const int32_t status = selected(record) ? write(record) : VEXA_USB_STATUS_SUCCESS;
        if (status != VEXA_USB_STATUS_SUCCESS)
            return status;
    }
    return VEXA_USB_STATUS_SUCCESS;
}

int32_t writeLowerMemory(AbstractDevice &device, const HexRecords &records) {
    return writeRecords(
        records, [](const HexRecord &record) { return record.address < kLoaderMemory; },
        [&](const HexRecord &record) {
            return memoryWrite(device, record.address, record.data.data(), record.data.size());
        });
}

int32_t writeUpperMemory(AbstractDevice &device, const HexRecords &records) {
    return writeRecords(
        records, [](const HexRecord &record) { return record.address >= kLoaderMemory; },
        [&](const HexRecord &record) {
            return vendorWrite(device, kLoaderRequest, record.address, 0, record.data.data(),
                               record.data.size());
        });
}

// Replaces the program in the lower memory and starts it.
int32_t replaceProgram(AbstractDevice &device, const HexRecords &records) {
    int32_t status = setCpu(device, Cpu::Held);
    if (status == VEXA_USB_STATUS_SUCCESS)
        status = writeLowerMemory(device, records);
    if (status == VEXA_USB_STATUS_SUCCESS)
        status = setCpu(device, Cpu::Released);
    return status;
}

} // namespace

int32_t fx2Reset(AbstractDevice &device) {
    int32_t status = setCpu(device, Cpu::Held);
    if (status == VEXA_USB_STATUS_SUCCESS)
        status = setCpu(device, Cpu::Released);
    if (status == VEXA_USB_STATUS_SUCCESS)
        std::this_thread::sleep_for(kStartTime);
    return status;
}

// The image is parsed only once the loader runs, so that a malformed one leaves the chip in a known
// state.
int32_t fx2LoadFirmware(AbstractDevice &device, const uint8_t *image, uint64_t size) {
    int32_t status =
        replaceProgram(device, parseHexBinary(kFx2LoaderImage.data(), kFx2LoaderImage.size()));
    if (status != VEXA_USB_STATUS_SUCCESS)
        return status;
    const HexRecords records = parseHexBinary(image, size);
    status = writeUpperMemory(device, records);
    if (status == VEXA_USB_STATUS_SUCCESS)
        status = replaceProgram(device, records);
    return status;
}

int32_t fx2Renumerate(AbstractDevice &device) {
    return vendorWrite(device, kRenumerateRequest, 0, 0, nullptr, 0);
}

} // namespace vexausb
