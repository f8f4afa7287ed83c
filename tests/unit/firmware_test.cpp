// The loaders' requests, in order, and what follows when one of them fails.
#include <chrono>
#include <functional>
#include <stdexcept>
#include <thread>

#include "firmware/fx2_loader_image.h"
#include "support/device_fixtures.h"
#include "support/hex_record_builder.h"

namespace {

using test::hexRecord;
using Bytes = std::vector<uint8_t>;

struct Request {
    uint8_t type;
    uint8_t request;
    uint16_t value;
    uint16_t index;
    Bytes data; // sent

    bool operator==(const Request &) const = default;
};

Bytes operator+(Bytes left, const Bytes &right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

// Records what is sent, fails what it was told to, and answers reads with `answers`.
class FirmwareTest : public test::DeviceTest {
protected:
    FirmwareTest() {
        fake::onControl([this](const fake::ControlRequest &request) {
            const bool isIn = (request.requestType & 0x80) != 0;
            sent.push_back({request.requestType, request.request, request.value, request.index,
                            isIn ? Bytes() : Bytes(request.data, request.data + request.length)});
            if (steps++ == failAt)
                return failure;
            if (isIn) {
                asked = request.length;
                answer(request.data, asked);
            }
            return static_cast<int>(request.length);
        });
        fake::onTransfer([this](uint8_t, uint8_t *data, int length, int *actual) {
            sent.push_back({0x81, 0, static_cast<uint16_t>(length), 0, {}});
            if (steps++ == failAt)
                return failure;
            answer(data, static_cast<size_t>(length));
            *actual = length;
            return 0;
        });
    }
    void answer(uint8_t *data, size_t size) {
        if (answers.empty())
            return;
        std::copy_n(answers.front().begin(), std::min(size, answers.front().size()), data);
        answers.erase(answers.begin());
    }
    // Lets each request fail in turn and expects that status, and that nothing is sent afterwards.
    void failEachStep(const std::function<int32_t()> &load, const std::vector<int32_t> &expected) {
        for (size_t step = 0; step < expected.size(); ++step) {
            sent.clear();
            steps = 0;
            failAt = step;
            EXPECT_EQ(load(), expected[step]) << step;
            EXPECT_EQ(sent.size(), step + 1);
        }
        failAt = SIZE_MAX;
        sent.clear();
    }

    std::vector<Request> sent;
    std::vector<Bytes> answers;
    size_t steps = 0;
    size_t failAt = SIZE_MAX;
    size_t asked = 0; // the length of the last request for data
    int failure = LIBUSB_ERROR_TIMEOUT;
};

constexpr size_t kLoaderRequests = 60; // hold, 58 records, release

TEST_F(FirmwareTest, Fx2LoadsInTwoStages) {
    const Request hold{0x40, 0xA0, 0xE600, 0, {1}};
    const Request release{0x40, 0xA0, 0xE600, 0, {0}};
    const Bytes image = hexRecord(0x2FFF, 0, {1}) + hexRecord(0x3000, 0, {2, 3}) +
                        hexRecord(0, 4, {0, 9}) + hexRecord(0xFFFF, 0, {}) + hexRecord(0, 1, {}) +
                        hexRecord(0x3100, 0, {4});
    const auto load = [&]() {
        return vexa_usb_fx2_load_firmware(device, image.data(), image.size());
    };
    ASSERT_EQ(load(), 0);
    EXPECT_EQ(sent[0], hold);
    EXPECT_EQ(sent[58].value, 0); // the reset vector is written last
    EXPECT_EQ(sent[59], release);
    const std::vector<Request> second(sent.begin() + kLoaderRequests, sent.end());
    const std::vector<Request> expected{
        {0x40, 0xA3, 0x3000, 0, {2, 3}}, {0x40, 0xA3, 0xFFFF, 0, {}}, hold,
        {0x40, 0xA0, 0x2FFF, 0, {1}},    {0x40, 0xA0, 0, 0, {0, 9}},  release};
    EXPECT_EQ(second, expected);
    failEachStep(load, std::vector<int32_t>(sent.size(), VEXA_USB_STATUS_TIMEOUT));
    failure = 0; // a short transfer
    failEachStep(load, {VEXA_USB_STATUS_NOT_ALL_DATA_TRANSFERRED});
    EXPECT_EQ(load(), 0);

    sent.clear();
    EXPECT_EQ(vexa_usb_fx2_load_firmware(device, nullptr, 0), 0);
    EXPECT_EQ(sent.size(), kLoaderRequests + 2);
    // Malformed, be it behind the end: the loader runs by then, and nothing of the image is sent.
    for (const Bytes &bad : {Bytes{1, 0, 0, 0, 0, 0}, image + Bytes{1}}) {
        sent.clear();
        EXPECT_ANY_THROW(vexa_usb_fx2_load_firmware(device, bad.data(), bad.size()));
        ASSERT_EQ(sent.size(), kLoaderRequests);
        EXPECT_EQ(sent.back(), release);
    }
    EXPECT_THROW(vexa_usb_fx2_load_firmware(device, image.data(), 3), std::out_of_range);
}

TEST_F(FirmwareTest, Fx2ResetAndRenumerate) {
    auto before = std::chrono::steady_clock::now();
    auto shortest = std::chrono::steady_clock::duration::max();
    for (int i = 0; i < 5; ++i) { // one of them is not disturbed
        before = std::chrono::steady_clock::now();
        failEachStep([this]() { return vexa_usb_fx2_reset(device); }, {-13, -13});
        shortest = std::min(shortest, std::chrono::steady_clock::now() - before);
    }
    EXPECT_GE(shortest, std::chrono::microseconds(300)); // three writes to the control register
    EXPECT_LT(shortest, std::chrono::milliseconds(45));
    EXPECT_EQ(vexa_usb_fx2_reset(device), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(50));
    sent.clear();
    EXPECT_EQ(vexa_usb_fx2_renumerate(device), 0);
    EXPECT_EQ(sent, (std::vector<Request>{{0x40, 0xD2, 0, 0, {}}}));
}

TEST_F(FirmwareTest, Fx3WalksTheSections) {
    std::vector<uint32_t> image{0x5943, 600, 0x4000FC00};
    uint32_t sum = 0;
    for (uint32_t i = 0; i < 600; ++i) {
        image.push_back(i * 0x9E3779B9U);
        sum += image.back();
    }
    const size_t sectionEnd = image.size();
    image.insert(image.end(), {1, 0x40030000, 7, 0, 0x40012345, sum + 7});
    const auto load = [&]() {
        return vexa_usb_fx3_load_firmware(device, image.data(), image.size());
    };
    ASSERT_EQ(load(), 0);
    ASSERT_EQ(sent.size(), 4U);
    EXPECT_EQ(sent[0].value, 0xFC00);
    EXPECT_EQ(sent[0].index, 0x4000);
    EXPECT_EQ(sent[0].data.size(), 2048U);
    const auto *const firstData = reinterpret_cast<const uint8_t *>(&image[3]);
    EXPECT_EQ(sent[0].data + sent[1].data, Bytes(firstData, firstData + 2400));
    EXPECT_EQ(sent[1].value, 0x0400); // behind a 64 KiB boundary
    EXPECT_EQ(sent[1].index, 0x4001);
    EXPECT_EQ(sent[1].data.size(), 352U);
    EXPECT_EQ(sent[2], (Request{0x40, 0xA0, 0, 0x4003, {7, 0, 0, 0}}));
    EXPECT_EQ(sent[3], (Request{0x40, 0xA0, 0x2345, 0x4001, {}}));
    failEachStep(load, {-13, -13, -13, 0});

    ++image.back();
    EXPECT_EQ(load(), VEXA_USB_STATUS_UNKNOWN);
    EXPECT_EQ(sent.size(), 3U); // no jump
    // Cut short: at a record's start it ends there, within a record nothing of that is sent.
    const std::tuple<size_t, int32_t, size_t> cuts[] = {{1, 0, 0},
                                                        {2, -5, 0},
                                                        {3, -5, 0},
                                                        {602, -5, 0},
                                                        {sectionEnd, 0, 2},
                                                        {sectionEnd + 1, -5, 2},
                                                        {sectionEnd + 3, 0, 3},
                                                        {sectionEnd + 4, -5, 3},
                                                        {sectionEnd + 5, -5, 3}};
    for (const auto &[length, status, requests] : cuts) {
        sent.clear();
        EXPECT_EQ(vexa_usb_fx3_load_firmware(device, image.data(), length), status) << length;
        EXPECT_EQ(sent.size(), requests) << length;
    }
    sent.clear();
    const auto *const odd = reinterpret_cast<uint32_t *>(reinterpret_cast<char *>(&image[0]) + 1);
    EXPECT_EQ(vexa_usb_fx3_load_firmware(device, odd, 2), -5);
    EXPECT_EQ(vexa_usb_fx3_load_firmware(device, image.data(), 0), -5);
    EXPECT_TRUE(sent.empty());
}

TEST_F(FirmwareTest, DfuSendsBlocksAndPolls) {
    const Bytes idle{0, 0, 0, 0, 5, 0};
    Bytes image(4097);
    for (size_t i = 0; i < image.size(); ++i)
        image[i] = static_cast<uint8_t>(i % 251);
    std::vector<double> progress;
    const auto callback = [](void *data, double done) {
        static_cast<std::vector<double> *>(data)->push_back(done);
    };
    const auto download = [&](size_t size) {
        sent.clear();
        progress.clear();
        return vexa_usb_dfu_download(device, image.data(), size, callback, &progress);
    };
    answers = {{0, 0, 0, 0, 4, 0}, {0, 5, 1, 0, 4, 0}, idle, idle};
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(download(4097), 0);
    const auto polled = std::chrono::steady_clock::now() - before;
    EXPECT_GE(polled, std::chrono::milliseconds(261));
    EXPECT_LT(polled, std::chrono::milliseconds(1028)); // as if the bytes were in another order
    const Request status{0xA1, 3, 0, 0, {}};
    const std::vector<Request> expected{{0x21, 1, 0, 0, Bytes(image.begin(), image.end() - 1)},
                                        status,
                                        status,
                                        status,
                                        {0x21, 1, 1, 0, {image.back()}},
                                        status,
                                        {0x21, 1, 2, 0, {}},
                                        status};
    EXPECT_EQ(sent, expected);
    EXPECT_EQ(fake::countCalls("libusb_control_transfer(161,3,0,0,6)"), 5U);
    EXPECT_EQ(progress, (std::vector<double>{4096.0 / 4097, 1}));
    answers = {idle};
    EXPECT_EQ(download(4096), 0);
    EXPECT_EQ(sent.size(), 4U);
    // An error that the device reports ends it; the state alone does not.
    answers = {{3, 0, 0, 0, 10, 0}};
    EXPECT_EQ(download(1), VEXA_USB_STATUS_UNKNOWN);
    EXPECT_EQ(sent.size(), 2U);
    answers = {{0, 0, 0, 0, 10, 0}};
    EXPECT_EQ(download(1), 0);
    failEachStep(
        [&]() {
            answers = {idle};
            return vexa_usb_dfu_download(device, image.data(), 1, nullptr, nullptr);
        },
        {-1, -13, -13, -13});
}

TEST_F(FirmwareTest, DfuEndsWhenTheHandleIsClosedInTheMiddle) {
    const Bytes image(4096);
    answers = {{0, 0, 0, 0, 5, 0}};
    _vexa_usb_device *const other = open();
    EXPECT_EQ(vexa_usb_dfu_download(
                  other, image.data(), image.size(),
                  [](void *data, double) {
                      EXPECT_EQ(vexa_usb_close(static_cast<_vexa_usb_device *>(data)), 0);
                  },
                  other),
              -1);
    EXPECT_EQ(sent.size(), 2U);
}

// A device may ask for hours; nobody waits for one that has left.
TEST_F(FirmwareTest, DfuEndsWhenTheDeviceLeaves) {
    const uint8_t byte = 0;
    answers = {{0, 0xFF, 0xFF, 0xFF, 4, 0}};
    failAt = 2; // the look at what has left
    failure = LIBUSB_ERROR_NO_DEVICE;
    std::thread leaving([this]() {
        EXPECT_TRUE(test::eventually(
            []() { return fake::countCalls("libusb_control_transfer(161,3,0,0,6)") == 1; }));
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        remove();
    });
    int32_t status = 0;
    const auto waited =
        test::timed([&]() { status = vexa_usb_dfu_download(device, &byte, 1, nullptr, nullptr); });
    leaving.join();
    EXPECT_GE(waited, std::chrono::milliseconds(50));
    EXPECT_LT(waited, std::chrono::seconds(20));
    EXPECT_EQ(status, -1);
}

// Report 3 and report 4 with the mark of a completed write.
const Bytes kSecurity{3};
const Bytes kComplete{4, 0x88, 0x88, 0x88, 0x88};

class Imx7Test : public FirmwareTest {
protected:
    Imx7Test() {
        spl[0] = 0xD1;
        spl[21] = 0x10;
        spl[22] = 0x91;
        for (size_t i = 24; i < spl.size(); ++i)
            spl[i] = static_cast<uint8_t>(i * 7);
    }
    int32_t load(const Bytes &last = kComplete) {
        sent.clear();
        steps = 0;
        answers = {kSecurity, Bytes{4}, kSecurity, last};
        return vexa_usb_imx7_load_firmware_spl(device, spl.data(), spl.size());
    }
    // Whose first request, which reads a descriptor, may be the one that fails.
    int32_t loadUboot(const Bytes &image) {
        sent.clear();
        steps = 0;
        answers = {Bytes(), kSecurity, Bytes{4}, kSecurity, kComplete};
        answers.erase(answers.begin(), answers.begin() + (failAt == 0 ? 1 : 0));
        return vexa_usb_imx7_load_firmware_uboot(device, image.data(), image.size());
    }
    void expectAddress(size_t request, const Bytes &address) {
        EXPECT_EQ(Bytes(&sent[request].data[3], &sent[request].data[7]), address);
    }

    Bytes spl = Bytes(1025);
};

TEST_F(Imx7Test, LoadsAnSpl) {
    ASSERT_EQ(load(), 0);
    const auto command = [](uint8_t code, uint8_t count, Bytes address) {
        return Request{
            0x21, 9, 0x0201, 0,
            Bytes{1, code, code} + address +
                Bytes{0, 0, 0, count, static_cast<uint8_t>(count == 0 ? 0 : 1), 0, 0, 0, 0, 0}};
    };
    const Request security{0x81, 0, 5, 0, {}};
    const Request status{0x81, 0, 65, 0, {}};
    const Bytes first(spl.begin(), spl.begin() + 1024);
    Bytes last = first;
    last[0] = spl[1024];
    const std::vector<Request> expected{command(5, 0, {0, 0, 0, 0}),
                                        security,
                                        status,
                                        command(4, 4, {0, 0x91, 0x10, 0}),
                                        {0x21, 9, 0x0202, 0, Bytes{2} + first},
                                        {0x21, 9, 0x0202, 0, Bytes{2} + last},
                                        security,
                                        status,
                                        command(11, 0, {0, 0x91, 0x10, 0}),
                                        security,
                                        status};
    EXPECT_EQ(sent, expected);
}

TEST_F(Imx7Test, RetriesCommandsOnly) {
    const size_t retried[] = {0, 1, 3, 8}; // the commands, and the first reading of report 3
    for (size_t step = 0; step < 11; ++step) {
        failAt = step;
        const bool again =
            std::find(std::begin(retried), std::end(retried), step) != std::end(retried);
        EXPECT_EQ(load(), again ? 0 : -1) << step;
        EXPECT_EQ(sent.size(), again ? 12 : step + 1) << step;
    }
    failAt = SIZE_MAX;
    sent.clear();
    fake::onControl([this](const fake::ControlRequest &) { return ++steps < 5 ? -1 : 17; });
    steps = 0;
    answers.clear();
    EXPECT_EQ(vexa_usb_imx7_load_firmware_spl(device, spl.data(), 24), -1); // a short data report
    EXPECT_GT(steps, 5U);                                                   // the fifth was good
    fake::onControl([this](const fake::ControlRequest &) { return ++steps, -1; });
    steps = 0;
    EXPECT_EQ(vexa_usb_imx7_load_firmware_spl(device, spl.data(), 24), -1);
    EXPECT_EQ(steps, 5U);
}

TEST_F(Imx7Test, LooksAtTheHeaders) {
    for (size_t wrong = 0; wrong < 24; ++wrong) {
        const bool counts = wrong == 0 || (wrong >= 12 && wrong < 16);
        spl[wrong] = static_cast<uint8_t>(spl[wrong] + 1);
        EXPECT_EQ(load(), counts ? -1 : 0) << wrong;
        EXPECT_EQ(sent.empty(), counts) << wrong;
        spl[wrong] = static_cast<uint8_t>(spl[wrong] - 1);
    }
    sent.clear();
    EXPECT_EQ(vexa_usb_imx7_load_firmware_spl(device, spl.data(), 23), -1);
    EXPECT_TRUE(sent.empty());
    spl[20] = 1; // all of the address, least significant byte first
    spl[21] = 2;
    spl[22] = 3;
    spl[23] = 4;
    EXPECT_EQ(load(), 0);
    expectAddress(3, {4, 3, 2, 1});
    expectAddress(8, {4, 3, 2, 1});

    Bytes uboot = Bytes{0x27, 0x05, 0x19, 0x56} + Bytes(60);
    uboot[4] = 0x5A; // the checksum of the header, which is not looked at
    uboot[16] = 0x87;
    uboot[17] = 0x80;
    std::vector<Bytes> wrongOnes{spl, Bytes(&uboot[0], &uboot[19])};
    for (size_t wrong = 0; wrong < 4; ++wrong) {
        wrongOnes.push_back(uboot);
        wrongOnes.back()[wrong] ^= 1;
    }
    for (const Bytes &wrong : wrongOnes) {
        EXPECT_EQ(loadUboot(wrong), -1);
        EXPECT_EQ(sent, (std::vector<Request>{{0x80, 6, 0x2200, 0, {}}})); // the descriptor
        EXPECT_EQ(asked, 76U);
    }
    // The header alone, or less of it, is sent as it is.
    for (size_t size = 20; size < 64; size += 43) {
        EXPECT_EQ(loadUboot(Bytes(&uboot[0], &uboot[size])), 0) << size;
        ASSERT_EQ(sent.size(), 11U);
        EXPECT_EQ(sent[4].data[11], size);
        EXPECT_EQ(Bytes(&sent[5].data[1], &sent[5].data[1] + size), Bytes(&uboot[0], &uboot[size]));
    }
    failAt = 0; // whether the descriptor could be read does not matter
    EXPECT_EQ(loadUboot(uboot), 0);
    ASSERT_EQ(sent.size(), 11U);
    expectAddress(4, {0x87, 0x7F, 0xFF, 0xC0});
    failAt = SIZE_MAX;

    // One byte of the mark of a completed write is wrong.
    for (size_t wrong = 1; wrong < 5; ++wrong) {
        Bytes mark = kComplete;
        --mark[wrong];
        EXPECT_EQ(load(mark), -1) << wrong;
        EXPECT_EQ(sent.size(), 8U) << wrong;
    }
}

} // namespace
