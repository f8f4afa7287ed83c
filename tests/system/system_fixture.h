#pragma once

#include <cstdint>
#include <utility>

#include <gtest/gtest.h>

#include "instrument_protocol.h"
#include "simulator.h"
#include "stream_reader.h"

namespace test {

// The library initialised, for one device at a time.
class KernelTest : public ::testing::Test {
protected:
    KernelTest() { vexa_usb_init(); }
    ~KernelTest() override {
        if (device != nullptr)
            vexa_usb_close(device);
        vexa_usb_fini();
    }
    void openFirst() {
        device = openDevice(listedIds().at(0), events);
        ASSERT_NE(device, nullptr);
    }
    int32_t close() { return vexa_usb_close(std::exchange(device, nullptr)); }
    int32_t start(uint64_t bufferSize, uint64_t bufferCount) {
        return vexa_usb_data_stream_start(device, sim::kStreamEndpoint, bufferSize, bufferCount);
    }
    int32_t stop() { return vexa_usb_data_stream_stop(device); }
    int32_t lock() { return vexa_usb_data_stream_buffer_lock(device, &lockedData, &lockedSize); }
    // Streams that many bytes from the beginning, looking at each; how many were right.
    uint64_t stream(uint64_t bufferSize, uint64_t bufferCount, uint64_t bytes) {
        EXPECT_EQ(rewindStream(device), 0);
        StreamReader reader(device, events);
        EXPECT_EQ(start(bufferSize, bufferCount), 0);
        const uint64_t right = reader.read(bytes);
        EXPECT_EQ(stop(), 0);
        return right;
    }

    EventLog &events = EventLog::make();
    _vexa_usb_device *device = nullptr;
    uint8_t *lockedData = nullptr; // of the buffer that lock() has locked
    uint64_t lockedSize = 0;
};

} // namespace test
