// Bare devices that are booted on a real kernel, come back as something else, and are used.
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/hex_record_builder.h"
#include "system_fixture.h"

namespace {

using namespace test;

using Bytes = std::vector<uint8_t>;

void append(Bytes &to, const Bytes &bytes) {
    to.insert(to.end(), bytes.begin(), bytes.end());
}

// A program that leaves the bus and comes back, and the payload from 0x3000 on.
Bytes fx2Image(const Bytes &payload) {
    Bytes image;
    for (size_t i = 0; i < payload.size(); i += 255) {
        const auto first = payload.begin() + static_cast<std::ptrdiff_t>(i);
        const auto length = static_cast<std::ptrdiff_t>(std::min<size_t>(255, payload.size() - i));
        append(image,
               hexRecord(static_cast<uint16_t>(0x3000 + i), 0, Bytes(first, first + length)));
    }
    append(image,
           hexRecord(0, 0, {0x90, 0xE6, 0x80, 0x74, 0x0A, 0xF0, 0x74, 0x02, 0xF0, 0x80, 0xFE}));
    append(image, hexRecord(0, 1, {}));
    return image;
}

// One section with the payload, filled up to whole words, which is also the program.
Bytes fx3Image(const Bytes &payload) {
    std::vector<uint32_t> data((payload.size() + 3) / 4);
    std::memcpy(data.data(), payload.data(), payload.size());
    std::vector<uint32_t> words{0x5943, static_cast<uint32_t>(data.size()), 0x40000000};
    words.insert(words.end(), data.begin(), data.end());
    uint32_t sum = 0;
    for (const uint32_t word : data)
        sum += word;
    words.insert(words.end(), {0, 0x40000000, sum});
    Bytes image(words.size() * 4);
    std::memcpy(image.data(), words.data(), image.size());
    return image;
}

Bytes splImage(const Bytes &payload) {
    Bytes image(32);
    image[0] = 0xD1;
    image[22] = 0x91; // at 0x00910000
    append(image, payload);
    return image;
}

Bytes ubootImage(const Bytes &payload) {
    Bytes image(64);
    const Bytes magic{0x27, 0x05, 0x19, 0x56};
    std::copy(magic.begin(), magic.end(), image.begin());
    image[16] = 0x80; // at 0x80800000
    image[17] = 0x80;
    append(image, payload);
    return image;
}

// A processor, what boots it, and how it is loaded.
struct Kind {
    const char *name;
    Bytes (*image)(const Bytes &payload);
    int32_t (*load)(_vexa_usb_device *device, const uint8_t *image, uint64_t size);
    uint16_t firmwareOffset = 0; // of the payload, in what the instrument says it was booted with

    int32_t send(_vexa_usb_device *device, const Bytes &made) const {
        return load(device, made.data(), made.size());
    }
};

const Kind kFx2{"fx2", fx2Image, vexa_usb_fx2_load_firmware, 0x3000};
const Kind kFx3{"fx3", fx3Image, [](_vexa_usb_device *device, const uint8_t *image, uint64_t size) {
                    return vexa_usb_fx3_load_firmware(
                        device, reinterpret_cast<const uint32_t *>(image), size / 4);
                }};
const Kind kDfu{"dfu", [](const Bytes &payload) { return payload; },
                [](_vexa_usb_device *device, const uint8_t *image, uint64_t size) {
                    return vexa_usb_dfu_download(device, image, size, nullptr, nullptr);
                }};
const Kind kImx7{"imx7", splImage, vexa_usb_imx7_load_firmware_spl};

class FirmwareTest : public KernelTest {
protected:
    static Bytes randomBytes(size_t size) {
        static std::mt19937 generator{3}; // NOLINT(cert-msc51-cpp): repeatable
        Bytes bytes(size);
        for (uint8_t &byte : bytes)
            byte = static_cast<uint8_t>(1 + generator() % 255);
        return bytes;
    }
    // The only device that is listed, once that is another than this one.
    static uint64_t onlyId(uint64_t but = 0) {
        std::vector<uint64_t> ids;
        EXPECT_TRUE(eventually([&]() {
            ids = listedIds(false);
            return ids.size() == 1 && ids[0] != but;
        }));
        return ids.at(0);
    }
    int32_t load(uint64_t id, const Kind &kind, const Bytes &payload) {
        device = openDevice(id, events);
        EXPECT_NE(device, nullptr);
        return kind.send(device, kind.image(payload));
    }
    // What the instrument was booted with, once it has shown that it works.
    Bytes firmwareOf(const Kind &kind, size_t size) {
        EXPECT_TRUE(eventually([]() { return listedInstruments().size() == 1; }));
        device = openDevice(listedInstruments().at(0), events);
        EXPECT_NE(device, nullptr);
        EXPECT_EQ(stream(65536, 8, 200000), 200000U);
        Bytes firmware;
        while (firmware.size() < size) {
            Bytes piece(std::min<size_t>(4096, size - firmware.size()));
            const size_t at = kind.firmwareOffset + firmware.size();
            EXPECT_EQ(ask(device, sim::kRequestFirmware, piece, at), 0);
            append(firmware, piece);
        }
        EXPECT_EQ(close(), 0);
        return firmware;
    }
    void boot(const Kind &kind, const std::vector<size_t> &sizes,
              const std::string &properties = {}) {
        for (const size_t size : sizes) {
            const Simulator simulator({kind.name + properties});
            const Bytes payload = randomBytes(size);
            EXPECT_EQ(load(onlyId(), kind, payload), 0);
            EXPECT_EQ(close(), 0);
            EXPECT_EQ(firmwareOf(kind, size), payload) << kind.name << " " << size;
        }
    }
};

// A byte, a block, and one byte (or word) more.
TEST_F(FirmwareTest, Boots) {
    boot(kFx2, {1, 255, 256, 0x1000}, ",delay=2");
    boot(kFx3, {4, 2048, 2052});
    boot(kDfu, {1, 4096, 4097, 1U << 20}, ",linger=20");
}

// A firmware that finds itself renumerated by the loader before it, so leaves that alone; writes a
// byte by its page; and, a long while after its start and after the first request that it gets,
// leaves the bus.
TEST_F(FirmwareTest, Fx2RenumeratesWhenTold) {
    const Simulator simulator({"fx2"});
    const Kind waiting{"fx2", [](const Bytes &program) { return hexRecord(0, 0, program); },
                       kFx2.load, 0x3512};
    EXPECT_EQ(load(onlyId(), waiting,
                   {0x75, 0x92, 0x35, 0x78, 0x12, 0x74, 0x5A, 0xF2, 0x7D, 0x04, 0xDF, 0xFE,
                    0xDE, 0xFC, 0xDD, 0xFA, 0x90, 0xE6, 0x5D, 0xE0, 0x30, 0xE0, 0xFC, 0x90,
                    0xE6, 0xA0, 0x74, 0x80, 0xF0, 0x7D, 0x04, 0xDF, 0xFE, 0xDE, 0xFC, 0xDD,
                    0xFA, 0x90, 0xE6, 0x80, 0x74, 0x0A, 0xF0, 0x74, 0x02, 0xF0, 0x80, 0xFE}),
              0);
    EXPECT_TRUE(listedInstruments().empty());
    EXPECT_EQ(vexa_usb_fx2_renumerate(device), 0);
    EXPECT_EQ(close(), 0);
    EXPECT_EQ(firmwareOf(waiting, 1), Bytes{0x5A});
}

TEST_F(FirmwareTest, Imx7BootsInTwoStages) {
    const Kind stage{"imx7", ubootImage, vexa_usb_imx7_load_firmware_uboot};
    for (const size_t size : {size_t{1}, size_t{1024 - 64}, size_t{1025 - 64}}) {
        const Simulator simulator({"imx7"});
        const Bytes payload = randomBytes(size);
        const uint64_t id = onlyId();
        EXPECT_EQ(load(id, kImx7, payload), 0);
        EXPECT_EQ(close(), 0);
        EXPECT_EQ(load(onlyId(id), stage, payload), 0);
        EXPECT_EQ(close(), 0);
        Bytes both = splImage(payload);
        append(both, ubootImage(payload));
        EXPECT_EQ(firmwareOf(stage, both.size()), both);
    }
}

// The device leaves after its first request, then after `step` more, until it stays.  With up to
// `failing` requests and transfers the load cannot have succeeded; `all` are enough.  It may be
// silent for a while before the bus is told that it has left.
void loadUntilItStays(const Kind &kind, uint16_t product, int failing, int all, int step) {
    const Bytes image = kind.image(Bytes(5000, 0x5A));
    uint64_t id = 0;
    for (int last = 1; last < all + step; last += step) {
        id = idOf(product, id);
        EventLog &events = EventLog::make();
        _vexa_usb_device *const device = openDevice(id, events);
        ASSERT_NE(device, nullptr) << kind.name;
        const int32_t status = kind.send(device, image);
        EXPECT_TRUE(last <= failing ? status == -1 || status == -13 : status == 0)
            << kind.name << " " << last << ": " << status;
        EXPECT_TRUE(events.waitFor(VEXA_USB_DEVICE_EVENT_REMOVED));
        EXPECT_EQ(kind.send(device, image), VEXA_USB_STATUS_DEVICE_REMOVED);
        EXPECT_EQ(vexa_usb_close(device), 0);
    }
}

// At some requests, with VEXA_HOSTILE at each.
TEST_F(FirmwareTest, UnplugInEveryPhase) {
    const auto step = [all = std::getenv("VEXA_HOSTILE") != nullptr](int few) {
        return all ? 1 : few;
    };
    const Simulator simulator({"fx2,leave-after=1+" + std::to_string(step(41)),
                               "fx3,leave-after=1+1",
                               "dfu,linger=20,leave-after=1+" + std::to_string(step(2)),
                               "imx7,leave-after=1+" + std::to_string(step(4))},
                              4);
    std::vector<std::jthread> threads;
    threads.emplace_back(loadUntilItStays, kFx2, 0x8613, 82, 83, step(41));
    threads.emplace_back(loadUntilItStays, kFx3, 0x00F3, 2, 4, 1); // the jump's failure is no news
    threads.emplace_back(loadUntilItStays, kDfu, 0x0DF0, 5, 7, step(2));
    threads.emplace_back(loadUntilItStays, kImx7, 0x0076, 13, 15, step(4));
    threads.clear();
    EXPECT_TRUE(eventually([]() { return listedInstruments().size() == 3; }));
}

// What ends a download to a device that never does: its removal, or the last fini.
TEST_F(FirmwareTest, UnplugEndsEndlessDownloads) {
    std::vector<std::string> lies{"dfu-poll,leave-after=2",
                                  "dfu-busy,leave-after=40",
                                  "dfu-state,leave-after=40",
                                  "dfu-status",
                                  "dfu-error",
                                  "dfu-endless",
                                  "dfu-poll"};
    for (size_t i = 0; i < lies.size(); ++i)
        lies[i] = "hostile,as=dfu,product=" + std::to_string(i) + ",lie=" + lies[i];
    const Simulator simulator(lies, lies.size());
    std::vector<_vexa_usb_device *> opened(lies.size());
    std::vector<std::jthread> threads;
    for (size_t i = 0; i < lies.size(); ++i)
        threads.emplace_back([&, i]() {
            opened[i] = openDevice(idOf(static_cast<uint16_t>(i)), EventLog::make());
            int32_t status = 0;
            const auto load = [&]() { status = kDfu.send(opened[i], Bytes(5000)); };
            EXPECT_LT(timed(load), std::chrono::seconds(15)) << lies[i];
            EXPECT_EQ(status, i == 5 ? 0 : -1) << lies[i];
        });
    while (threads.size() > 1)
        threads.erase(threads.begin());
    vexa_usb_fini();
    threads.clear();
    vexa_usb_init();
    for (_vexa_usb_device *each : opened)
        EXPECT_EQ(vexa_usb_close(each), 0);
}

} // namespace
