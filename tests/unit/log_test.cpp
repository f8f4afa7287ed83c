// What the library says of itself, and when.
#include <cstdlib>
#include <functional>
#include <string>

#include "core/log.h"
#include "helpers.h"

namespace {

class LogTest : public test::DeviceTest {
protected:
    ~LogTest() override {
        unsetenv("VEXA_USB_LOG");
        vexausb::readLogLevel();
    }

    // What is written to standard error meanwhile.
    static std::string logOf(const char *level, const std::function<void()> &action) {
        if (level == nullptr)
            unsetenv("VEXA_USB_LOG");
        else
            setenv("VEXA_USB_LOG", level, 1);
        testing::internal::CaptureStderr();
        vexausb::readLogLevel();
        action();
        return testing::internal::GetCapturedStderr();
    }
    static bool says(const std::string &log, const std::string &text) {
        return log.find(text) != std::string::npos;
    }
    int32_t start() { return vexa_usb_data_stream_start(device, 0x82, 512, 3); }
};

TEST_F(LogTest, LevelsAreTakenFromTheEnvironment) {
    const auto refuse = [this]() {
        fake::failCall("libusb_bulk_transfer", LIBUSB_ERROR_PIPE);
        uint8_t byte = 0;
        EXPECT_EQ(vexa_usb_bulk_read(device, 0x83, &byte, 1), -1);
        fake::failCall("libusb_get_device_list");
        EXPECT_EQ(vexa_usb_update_device_list(), 0);
    };
    EXPECT_EQ(logOf(nullptr, refuse), "");
    EXPECT_EQ(logOf("", refuse), "");
    for (const char *level : {"error", "info", "debug"}) {
        const std::string said = logOf(level, refuse);
        EXPECT_TRUE(says(said, " error: the bus cannot be read"));
        EXPECT_EQ(says(said, " debug: 5658:0001 at 001/001: a transfer on endpoint 0x83 failed"),
                  std::string(level) == "debug");
        EXPECT_EQ(said.back(), '\n');
    }
    EXPECT_TRUE(says(logOf("loud", refuse), "VEXA_USB_LOG is 'loud'"));
}

TEST_F(LogTest, AFailedOpenSaysWhy) {
    const auto failing = [this](const char *function, int result) {
        return logOf("error", [&]() {
            fake::failCall(function, result);
            const test::Snapshot snapshot;
            _vexa_usb_device *opened = nullptr;
            EXPECT_EQ(vexa_usb_open(snapshot.list[0], test::EventLog::callback, &log, &opened), -1);
        });
    };
    EXPECT_TRUE(says(failing("libusb_open", LIBUSB_ERROR_ACCESS),
                     "no permission for /dev/bus/usb/001/001; install the udev rule"));
    EXPECT_TRUE(says(failing("libusb_claim_interface", LIBUSB_ERROR_BUSY), "another program"));
}

TEST_F(LogTest, AStreamThatEndsSaysWhy) {
    const auto run = [this](const std::function<void()> &action) {
        const std::string said = logOf("info", [&]() {
            ASSERT_EQ(start(), 0);
            action();
            fake::deliverEvents();
            EXPECT_EQ(vexa_usb_data_stream_stop(device), 0);
        });
        EXPECT_TRUE(says(said, " info: 5658:0001 at 001/001: stream on endpoint 0x82 started"));
        return said;
    };
    EXPECT_TRUE(says(run([]() { fake::completeOldest(); }), "the caller holds 1 that"));
    EXPECT_TRUE(says(run([]() { fake::completeOldest(LIBUSB_TRANSFER_STALL, 100); }),
                     "after 0 bytes: LIBUSB_TRANSFER_STALL with 100 of 512 bytes; the rest is "
                     "missing"));
    const std::string refused = run([this]() {
        fake::completeOldest();
        fake::deliverEvents();
        uint8_t *data = nullptr;
        uint64_t size = 0;
        ASSERT_EQ(vexa_usb_data_stream_buffer_lock(device, &data, &size), 0);
    });
    EXPECT_TRUE(says(refused, "after 512 bytes"));
    fake::failCall("libusb_submit_transfer", LIBUSB_ERROR_NO_MEM);
    EXPECT_TRUE(says(run([]() {}), "after 0 bytes: a transfer was refused"));
    // What a stop cancels is no news.
    EXPECT_FALSE(says(run([]() {}), " error: "));
}

TEST_F(LogTest, AnEventPipeThatEndsSaysWhy) {
    const auto ending = [this](const std::function<void()> &action) {
        close();
        device = open();
        return logOf("error", [&]() {
            ASSERT_EQ(vexa_usb_event_pipe_enable(device, 0x81), 0);
            action();
            fake::deliverEvents();
        });
    };
    EXPECT_TRUE(says(ending([]() { fake::completeOldest(LIBUSB_TRANSFER_OVERFLOW); }),
                     "endpoint 0x81 has ended: LIBUSB_TRANSFER_OVERFLOW"));
    EXPECT_TRUE(says(ending([]() {
                         fake::failCall("libusb_submit_transfer");
                         fake::completeOldest();
                     }),
                     "has ended: LIBUSB_ERROR"));
    EXPECT_EQ(ending([this]() { EXPECT_EQ(vexa_usb_event_pipe_disable(device), 0); }), "");
}

} // namespace
