// What the library says of itself, and when.
#include <cstdlib>
#include <functional>
#include <string>

#include "core/log.h"
#include "support/device_fixtures.h"

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
    const test::Snapshot snapshot;
    const auto tryOpening = [&]() {
        _vexa_usb_device *opened = nullptr;
        EXPECT_EQ(vexa_usb_open(snapshot.list[0], test::EventLog::callback, &log, &opened), -1);
    };
    const auto failing = [&](const char *function, int result) {
        return logOf("error", [&]() {
            fake::failCall(function, result);
            tryOpening();
        });
    };
    EXPECT_TRUE(says(failing("libusb_open", LIBUSB_ERROR_ACCESS), "udev rule 70-vexa-usb.rules"));
    EXPECT_TRUE(says(failing("libusb_open", LIBUSB_ERROR_IO), "/dev/bus/usb/001/001 cannot be"));
    EXPECT_TRUE(says(failing("libusb_claim_interface", LIBUSB_ERROR_BUSY), "another program"));
    EXPECT_TRUE(says(failing("libusb_get_device_list", LIBUSB_ERROR_OTHER), "cannot be opened"));
    EXPECT_TRUE(says(failing("libusb_get_device_descriptor", LIBUSB_ERROR_IO), "cannot be opened"));
    EXPECT_TRUE(says(failing("libusb_claim_interface", LIBUSB_ERROR_NO_DEVICE), "has just left"));
    EXPECT_TRUE(says(failing("libusb_claim_interface", LIBUSB_ERROR_IO), "plug the device in"));
    fake::detach(usbDevice); // without a notice yet
    EXPECT_TRUE(says(logOf("error", tryOpening), "LIBUSB_ERROR_NO_DEVICE: the device has left"));
    remove();
    EXPECT_TRUE(says(logOf("error", tryOpening), "it has left"));
}

TEST_F(LogTest, AFailedDetachIsTold) {
    EXPECT_TRUE(says(logOf("error",
                           [this]() {
                               close();
                               fake::failCall("libusb_kernel_driver_active", 1);
                               fake::failCall("libusb_detach_kernel_driver");
                               device = open();
                           }),
                     "kernel driver: LIBUSB_ERROR_IO; unload"));
}

TEST_F(LogTest, TellsWhoComesAndGoes) {
    libusb_device *const other = fake::attach(VEXA_USB_VENDOR_ID, 7);
    const auto comeAndGo = [&](const std::function<void()> &action) {
        return logOf("info", [&]() {
            action();
            fake::deliverEvents();
        });
    };
    EXPECT_TRUE(
        says(comeAndGo([&]() { fake::notifyArrival(other); }), "5658:0007 at 001/002: plug"));
    EXPECT_TRUE(says(comeAndGo([&]() { fake::notifyDeparture(other); }), "001/002: unplugged"));
    EXPECT_TRUE(says(comeAndGo([]() { vexa_usb_update_device_list(); }), "001/002: listed"));
    const std::string ends = logOf("info", [this]() {
        close();
        reinitialise();
    });
    EXPECT_TRUE(says(ends, ": ended\n") && says(ends, ": started\n"));
}

TEST_F(LogTest, AnEndpointThatCannotBeUsedIsTold) {
    const auto refused = [&](const std::function<int32_t()> &call, int32_t status) {
        return logOf("error", [&]() { EXPECT_EQ(call(), status); });
    };
    const auto stream = [this]() { return vexa_usb_data_stream_start(device, 0x8F, 512, 4); };
    const auto pipe = [this]() { return vexa_usb_event_pipe_enable(device, 0x8F); };
    EXPECT_TRUE(says(refused(stream, -1), "endpoint 0x8f cannot be used"));
    EXPECT_TRUE(says(refused(pipe, -1), "endpoint 0x8f cannot be used"));
    fake::failCall("libusb_alloc_transfer", 0);
    EXPECT_TRUE(says(refused([this]() { return start(); }, -4), "no memory"));
    fake::failCall("libusb_submit_transfer", LIBUSB_ERROR_IO);
    EXPECT_TRUE(says(refused([this]() { return vexa_usb_event_pipe_enable(device, 0x81); }, -1),
                     "its transfer was refused"));
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
    EXPECT_TRUE(says(run([]() { fake::completeOldest(LIBUSB_TRANSFER_COMPLETED, 100); }),
                     "after 0 bytes: LIBUSB_TRANSFER_COMPLETED with 100 of 512 bytes; the rest"));
    const std::string allFailed = run([]() {
        for (int i = 0; i < 3; ++i)
            fake::completeOldest(LIBUSB_TRANSFER_STALL);
    });
    EXPECT_TRUE(says(allFailed, "LIBUSB_TRANSFER_STALL with 0 of 512 bytes; its piece is missing"));
    EXPECT_TRUE(says(allFailed, "no transfer is left"));
    fake::failCall("libusb_submit_transfer", LIBUSB_ERROR_NO_MEM);
    EXPECT_TRUE(says(run([]() {}), "after 0 bytes: a transfer was refused"));
    // What a stop cancels is no news.
    EXPECT_FALSE(says(run([]() {}), " error: "));
    setenv("VEXA_USB_STREAM", "none", 1);
    EXPECT_TRUE(says(run([]() {}), "VEXA_USB_STREAM is 'none'"));
    unsetenv("VEXA_USB_STREAM");
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
                     "has ended: LIBUSB_ERROR_IO; close"));
    EXPECT_EQ(ending([this]() { EXPECT_EQ(vexa_usb_event_pipe_disable(device), 0); }), "");
}

} // namespace
