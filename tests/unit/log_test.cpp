// What the library says of itself, and when.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <functional>
#include <string>

#include <sys/syscall.h>
#include <unistd.h>

#include "core/log.h"
#include "core/usbfs_limit.h"
#include "support/device_fixtures.h"
#include "support/fake_shared_memory.h"

namespace {

// Each second write is interrupted, the others take a hundred bytes at most.
std::atomic<bool> writesInPieces = false;

} // namespace

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
ssize_t write(int file, const void *data, size_t size) {
    static std::atomic<unsigned> count = 0;
    if (writesInPieces && ++count % 2 == 0) {
        errno = EINTR;
        return -1;
    }
    return syscall(SYS_write, file, data, writesInPieces ? std::min<size_t>(size, 100) : size);
}

namespace {

using namespace test;
using Action = std::function<void()>;

class LogTest : public StreamingTest {
protected:
    // What is written to standard error meanwhile.
    static std::string logOf(const char *level, const Action &action) {
        if (level == nullptr)
            unsetenv("VEXA_USB_LOG");
        else
            setenv("VEXA_USB_LOG", level, 1);
        testing::internal::CaptureStderr();
        vexausb::readLogLevel();
        action();
        return testing::internal::GetCapturedStderr();
    }
    static void expectSays(const std::string &log, const std::string &text, bool expected = true) {
        EXPECT_EQ(log.find(text) != std::string::npos, expected) << text << " in:\n" << log;
    }
    static void expectError(const Action &action, const std::string &text) {
        expectSays(logOf("error", action), text);
    }
};

TEST_F(LogTest, LevelsAreTakenFromTheEnvironment) {
    const auto refuse = [this]() {
        fake::failCall("libusb_bulk_transfer", LIBUSB_ERROR_PIPE);
        uint8_t byte = 0;
        EXPECT_EQ(vexa_usb_bulk_read(device, 0x83, &byte, 1), -1);
        fake::failCall("libusb_control_transfer", LIBUSB_ERROR_PIPE);
        EXPECT_EQ(vexa_usb_fx2_renumerate(device), -1);
        fake::failCall("libusb_get_device_list");
        EXPECT_EQ(vexa_usb_update_device_list(), 0);
    };
    EXPECT_EQ(logOf(nullptr, refuse), "");
    EXPECT_EQ(logOf("", refuse), "");
    for (const std::string level : {"error", "info", "debug"}) {
        const std::string said = logOf(level.c_str(), refuse);
        EXPECT_EQ(said.find(' ', said.find('.')) - said.find('.'), 7U) << said; // microseconds
        expectSays(said, " unit-tests error: the bus cannot be read");
        for (const std::string endpoint : {"0x83", "0x00"})
            expectSays(said,
                       " debug: 5658:0001 at 001/001: a transfer on endpoint " + endpoint +
                           " failed: LIBUSB_ERROR_PIPE\n",
                       level == "debug");
    }
    expectSays(logOf("loud", refuse), "VEXA_USB_LOG is 'loud'");
    EXPECT_FALSE(vexausb::logs(vexausb::LogLevel::Info));
}

TEST_F(LogTest, LinesThatAreTooLongAreCut) {
    const std::string text(2000, 'x');
    const auto write = [&]() { vexausb::logLine(vexausb::LogLevel::Error, "%s", text.c_str()); };
    const std::string said = logOf("error", write);
    EXPECT_EQ(said.size(), 512U);
    EXPECT_EQ(said.substr(510), "x\n");
    writesInPieces = true;
    const std::string whole = logOf("error", write);
    writesInPieces = false;
    EXPECT_EQ(whole.substr(whole.find(" unit")), said.substr(said.find(" unit"))); // but the time
}

TEST_F(LogTest, ClosedStandardErrorHoldsNobodyUp) {
    logOf("error", []() {
        const int saved = dup(STDERR_FILENO);
        ::close(STDERR_FILENO);
        errno = ENOTTY;
        vexausb::logLine(vexausb::LogLevel::Error, "unheard");
        EXPECT_EQ(errno, ENOTTY); // the caller's
        dup2(saved, STDERR_FILENO);
        ::close(saved);
    });
}

TEST_F(LogTest, AFailedOpenSaysWhy) {
    const Snapshot snapshot;
    int32_t expected = -1;
    const auto tryOpening = [&]() {
        _vexa_usb_device *opened = nullptr;
        EXPECT_EQ(vexa_usb_open(snapshot.list[0], EventLog::callback, &log, &opened), expected);
        EXPECT_EQ(opened, nullptr);
    };
    const struct {
        const char *function;
        int result;
        const char *text;
        int32_t status = -1;
    } cases[] = {
        {"libusb_open", LIBUSB_ERROR_ACCESS, "udev rule 70-vexa-usb.rules"},
        {"libusb_open", LIBUSB_ERROR_IO, "/dev/bus/usb/001/001 cannot be"},
        {"libusb_open", LIBUSB_ERROR_TIMEOUT, "LIBUSB_ERROR_TIMEOUT: 'lsusb' shows", -13},
        {"libusb_get_device_list", LIBUSB_ERROR_TIMEOUT, "LIBUSB_ERROR_TIMEOUT", -13},
        {"libusb_claim_interface", LIBUSB_ERROR_BUSY, "another program"},
        {"libusb_claim_interface", LIBUSB_ERROR_NO_DEVICE, "has just left"},
        {"libusb_claim_interface", LIBUSB_ERROR_IO, "plug the device in"},
        {"libusb_get_device_list", LIBUSB_ERROR_OTHER, "cannot be opened"},
        {"libusb_get_device_descriptor", LIBUSB_ERROR_IO, "cannot be opened"},
    };
    for (const auto &each : cases) {
        fake::failCall(each.function, each.result);
        expected = each.status;
        expectError(tryOpening, each.text);
    }
    expected = -1;
    fake::detach(usbDevice); // without a notice yet
    expectError(tryOpening, "LIBUSB_ERROR_NO_DEVICE: the device has left");
    remove();
    expectError(tryOpening, "it has left");
}

TEST_F(LogTest, AFailedDetachIsTold) {
    close();
    fake::failCall("libusb_kernel_driver_active", 1);
    fake::failCall("libusb_detach_kernel_driver");
    expectError([this]() { device = open(); }, "kernel driver: LIBUSB_ERROR_IO; unload");
    close();
    fake::failCall("libusb_kernel_driver_active", 1);
    EXPECT_EQ(logOf("error", [this]() { device = open(); }), "");
}

TEST_F(LogTest, TellsWhoComesAndGoes) {
    libusb_device *const other = fake::attach(VEXA_USB_VENDOR_ID, 7);
    const auto expectNews = [&](const Action &action, const char *text) {
        expectSays(logOf("info",
                         [&]() {
                             action();
                             fake::deliverEvents();
                         }),
                   text);
    };
    expectNews([&]() { fake::notifyArrival(other); }, "5658:0007 at 001/002: plugged in\n");
    expectNews([&]() { fake::notifyDeparture(other); }, "001/002: unplugged\n");
    expectNews([]() { vexa_usb_update_device_list(); }, "001/002: listed\n");
    close();
    expectNews([&]() { device = open(); }, "5658:0001 at 001/001: opened\n");
    expectNews([&]() { reinitialise(); }, ": ended\n");
    expectNews([&]() { reinitialise(); }, ": started\n");
    EXPECT_EQ(logOf("error", [&]() { reinitialise(); }), "");
    fake::failCall("libusb_hotplug_register_callback", LIBUSB_ERROR_OTHER);
    expectNews([&]() { reinitialise(); }, "the bus is not followed for the kind instrument");
    unsetenv("VEXA_USB_LOG"); // which each start reads
    testing::internal::CaptureStderr();
    reinitialise();
    expectSays(testing::internal::GetCapturedStderr(), ": started\n", false);
}

TEST_F(LogTest, AnEndpointThatCannotBeUsedIsTold) {
    expectError([this]() { start(512, 4, 0x8F); }, "endpoint 0x8f cannot be used: the endpoint");
    expectError([this]() { enable(0x8F); }, "endpoint 0x8f cannot be used: LIBUSB_ERROR_NOT_FOUND");
    fake::failCall("libusb_get_max_packet_size", 0);
    expectError([this]() { enable(); },
                "endpoint 0x81 cannot be used: the endpoint has no packet size");
    fake::failCall("libusb_alloc_transfer", 0);
    expectError([this]() { start(); }, "endpoint 0x82 cannot be used: no memory");
    fake::failCall("libusb_alloc_transfer", 0);
    expectError([this]() { enable(); }, "endpoint 0x81 cannot be used: no memory");
    fake::failCall("libusb_submit_transfer");
    expectError([this]() { enable(); },
                "endpoint 0x81 sends no events: its transfer was refused: LIBUSB_ERROR_IO\n");
}

TEST_F(LogTest, AStreamThatEndsSaysWhy) {
    const auto run = [this](const Action &action) {
        std::string said = logOf("info", [&]() {
            ASSERT_EQ(start(512, 3), 0);
            action();
            fake::deliverEvents();
            EXPECT_EQ(stop(), 0);
        });
        expectSays(said, " info: 5658:0001 at 001/001: stream on endpoint 0x82 started");
        return said;
    };
    expectSays(run([]() { fake::completeOldest(); }), "the caller holds 1 that");
    const auto giveBackOne = [this]() {
        EXPECT_EQ(lock(), 0);
        EXPECT_EQ(unlock(), 0);
        fake::completeOldest();
        fake::waitInFlight(3);
        fake::completeOldest();
    };
    expectSays(run(giveBackOne), "after 1024 bytes: no buffer is free, the caller holds 1 that");
    expectSays(run([]() { fake::completeOldest(LIBUSB_TRANSFER_COMPLETED, 100); }),
               "after 0 bytes: LIBUSB_TRANSFER_COMPLETED with 100 of 512 bytes; the rest");
    const std::string allFailed = run([]() {
        for (int i = 0; i < 3; ++i)
            fake::completeOldest(LIBUSB_TRANSFER_STALL);
    });
    expectSays(allFailed, "LIBUSB_TRANSFER_STALL with 0 of 512 bytes; its piece is missing");
    expectSays(allFailed, "no transfer is left");
    fake::failCall("libusb_submit_transfer", LIBUSB_ERROR_NO_MEM);
    expectSays(run([]() {}), "after 0 bytes: a transfer was refused: LIBUSB_ERROR_NO_MEM");
    // What a stop cancels is no news.
    expectSays(run([]() {}), " error: ", false);
    setenv("VEXA_USB_STREAM", "none", 1);
    expectSays(run([]() {}), "VEXA_USB_STREAM is 'none'");
    setenv("VEXA_USB_STREAM", "strict", 1);
    expectSays(run([]() { fake::completeOldest(LIBUSB_TRANSFER_COMPLETED, 100); }),
               "with 100 of 512 bytes; the stream ends; stop it, and start it again\n");
}

TEST_F(LogTest, AnEventPipeThatEndsSaysWhy) {
    const auto expectEnd = [this](const Action &action, const std::string &text) {
        close();
        device = open();
        const std::string said = logOf("error", [&]() {
            ASSERT_EQ(enable(), 0);
            fake::completeOldest(LIBUSB_TRANSFER_COMPLETED, 1);
            fake::waitInFlight(1);
            action();
            fake::deliverEvents();
        });
        expectSays(said, text);
        EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), text.empty() ? 0 : 1);
    };
    expectEnd([]() { fake::completeOldest(LIBUSB_TRANSFER_OVERFLOW); },
              "endpoint 0x81 has ended: LIBUSB_TRANSFER_OVERFLOW; close");
    expectEnd(
        []() {
            fake::failCall("libusb_submit_transfer");
            fake::completeOldest();
        },
        "endpoint 0x81 has ended: LIBUSB_ERROR_IO; close");
    expectEnd([this]() { EXPECT_EQ(disable(), 0); }, "");
}

// The limit doubled, or what is enough for most; no advice without a limit, nor for other errors.
TEST(UsbfsLimit, AdviceNamesTheLimit) {
    const auto advice = [](const char *limit, int error = LIBUSB_ERROR_NO_MEM) {
        fake::limitTransfers(limit);
        return std::string(vexausb::refusalAdvice(error).text.data());
    };
    EXPECT_NE(advice("16\n").find(" 16 MiB for USB transfers; for more: echo 256 > /"), SIZE_MAX);
    EXPECT_NE(advice("200").find(" 200 MiB for USB transfers; for more: echo 400 > /"), SIZE_MAX);
    for (const char *none : {"0", "", "x"})
        EXPECT_EQ(advice(none), "");
    EXPECT_EQ(advice("256", LIBUSB_ERROR_IO), "");
}

} // namespace
