#include "fx3.h"

#include <algorithm>
#include <utility>

namespace sim {

namespace {

constexpr uint8_t kMemoryRequest = 0xA0;
constexpr uint32_t kSystemMemory = 0x40000000;

void dropZeroTail(Bytes &bytes) {
    while (!bytes.empty() && bytes.back() == 0)
        bytes.pop_back();
}

} // namespace

void Fx3::plugged(Port &port) {
    BootDevice::plugged(port);
    memories_.clear();
    memories_.push_back({kSystemMemory, Bytes(512U << 10)});
    memories_.push_back({0x00000000, Bytes(16U << 10)}); // instructions, tightly coupled
    memories_.push_back({0x10000000, Bytes(8U << 10)});  // data, tightly coupled
}

Answer Fx3::loadRequest(const Setup &setup, std::span<uint8_t> data) {
    if ((setup.requestType & ~kRequestIn) != kTypeVendor || setup.request != kMemoryRequest)
        return Answer::stall();
    const uint32_t address = uint32_t{setup.index} << 16 | setup.value;
    if (setup.length == 0)
        return jump(address);
    Memory *const memory = find(address, data.size());
    if (memory == nullptr)
        return Answer::stall();
    const std::span<uint8_t> here =
        std::span(memory->bytes).subspan(address - memory->base, data.size());
    if (setup.isIn())
        return sendBytes(here, data);
    std::copy(data.begin(), data.end(), here.begin());
    memory->written = true;
    return Answer::done(data.size());
}

Answer Fx3::jump(uint32_t address) {
    const Memory *const memory = find(address, sizeof(uint32_t));
    if (memory == nullptr || !memory->written)
        return Answer::stall();
    Bytes firmware = memories_.front().bytes;
    dropZeroTail(firmware);
    start(std::move(firmware));
    return Answer::done(0);
}

Fx3::Memory *Fx3::find(uint32_t address, size_t length) {
    const auto found = std::find_if(memories_.begin(), memories_.end(), [&](const Memory &memory) {
        return address >= memory.base &&
               uint64_t{address - memory.base} + length <= memory.bytes.size();
    });
    return found != memories_.end() ? &*found : nullptr;
}

} // namespace sim
