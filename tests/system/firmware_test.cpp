// Bare devices that are booted on a real kernel, come back as something else, and are used.
#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "instrument_protocol.h"
#include "simulator.h"
#include "stream_reader.h"

namespace {

using test::Events;
using test::Simulator;
using test::StreamReader;

using Bytes = std::vector<uint8_t>;

void append(Bytes &to, const Bytes &bytes) {
    to.insert(to.end(), bytes.begin(), bytes.end());
}

void appendHexRecord(Bytes &to, uint16_t address, uint8_t type, const Bytes &data) {
    const size_t begin = to.size();
    append(to, {static_cast<uint8_t>(data.size()), static_cast<uint8_t>(address >> 8),
                static_cast<uint8_t>(address), type});
    append(to, data);
    uint8_t sum = 0;
    for (size_t i = begin; i < to.size(); ++i)
        sum = static_cast<uint8_t>(sum + to[i]);
    to.push_back(static_cast<uint8_t>(-sum));
}

// A program that leaves the bus and comes back, and the payload from 0x3000 on.
Bytes fx2Image(const Bytes &payload) {
    Bytes image;
    for (size_t i = 0; i < payload.size(); i += 255) {
        const auto first = payload.begin() + static_cast<std::ptrdiff_t>(i);
        const auto length = static_cast<std::ptrdiff_t>(std::min<size_t>(255, payload.size() - i));
        appendHexRecord(image, static_cast<uint16_t>(0x3000 + i), 0, Bytes(first, first + length));
    }
    appendHexRecord(image, 0, 0,
                    {0x90, 0xE6, 0x80, 0x74, 0x0A, 0xF0, 0x74, 0x02, 0xF0, 0x80, 0xFE});
    appendHexRecord(image, 0, 1, {});
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

using Load = int32_t (*)(_vexa_usb_device *, const Bytes &);

struct Kind {
    const char *name;
    Bytes (*image)(const Bytes &payload);
    Load load;
    uint16_t firmwareOffset; // of the payload, in what the instrument says it was booted with
};

constexpr Load kLoadSpl = [](_vexa_usb_device *device, const Bytes &image) {
    return vexa_usb_imx7_load_firmware_spl(device, image.data(), image.size());
};

const Kind kFx2{"fx2", fx2Image,
                [](_vexa_usb_device *device, const Bytes &image) {
                    return vexa_usb_fx2_load_firmware(device, image.data(), image.size());
                },
                0x3000};
const Kind kFx3{"fx3", fx3Image,
                [](_vexa_usb_device *device, const Bytes &image) {
                    return vexa_usb_fx3_load_firmware(
                        device, reinterpret_cast<const uint32_t *>(image.data()), image.size() / 4);
                },
                0};
const Kind kDfu{"dfu", [](const Bytes &payload) { return payload; },
                [](_vexa_usb_device *device, const Bytes &image) {
                    return vexa_usb_dfu_download(device, image.data(), image.size(), nullptr,
                                                 nullptr);
                },
                0};
const Kind kImx7{"imx7", splImage, kLoadSpl, 0};

class FirmwareTest : public ::testing::Test {
protected:
    FirmwareTest() { vexa_usb_init(); }
    ~FirmwareTest() override { vexa_usb_fini(); }

    static Bytes randomBytes(size_t size) {
        static std::mt19937 generator{3}; // NOLINT(cert-msc51-cpp): repeatable
        Bytes bytes(size);
        for (uint8_t &byte : bytes)
            byte = static_cast<uint8_t>(1 + generator() % 255);
        return bytes;
    }
    int32_t load(uint64_t id, const Kind &kind, const Bytes &payload, Load by = nullptr) {
        events = &Events::make();
        device = test::openDevice(id, Events::callback, events);
        EXPECT_NE(device, nullptr);
        return (by != nullptr ? by : kind.load)(device, kind.image(payload));
    }
    int32_t close() { return vexa_usb_close(std::exchange(device, nullptr)); }
    // Waits until that many devices have the instrument's interfaces: they answer its requests.
    static std::vector<uint64_t> instruments(size_t count) {
        std::vector<uint64_t> found;
        EXPECT_TRUE(test::eventually([&]() {
            found = test::listedInstruments();
            return found.size() == count;
        }));
        return found;
    }
    // What the instrument was booted with, once it has shown that it works.
    Bytes firmwareOf(uint64_t id, const Kind &kind, size_t size) {
        Events &streamEvents = Events::make();
        device = test::openDevice(id, Events::callback, &streamEvents);
        EXPECT_NE(device, nullptr);
        EXPECT_EQ(test::rewindStream(device), 0);
        StreamReader reader(device, streamEvents);
        EXPECT_EQ(vexa_usb_data_stream_start(device, sim::kStreamEndpoint, 65536, 8), 0);
        EXPECT_EQ(reader.read(200000), 200000U);
        EXPECT_EQ(vexa_usb_data_stream_stop(device), 0);
        Bytes firmware;
        while (firmware.size() < size) {
            Bytes piece(std::min<size_t>(4096, size - firmware.size()));
            const size_t at = kind.firmwareOffset + firmware.size();
            const int32_t status = vexa_usb_control_transfer(
                device, VEXA_USB_DIRECTION_IN, VEXA_USB_TYPE_VENDOR, VEXA_USB_RECIPIENT_DEVICE,
                sim::kRequestFirmware, static_cast<uint16_t>(at), static_cast<uint16_t>(at >> 16),
                piece.data(), piece.size());
            if (status != VEXA_USB_STATUS_SUCCESS)
                break; // it has less
            append(firmware, piece);
        }
        EXPECT_EQ(close(), 0);
        return firmware;
    }
    // Boots one device for each size, and finds all the payloads again.
    void boot(const Kind &kind, const std::vector<size_t> &sizes,
              const std::string &properties = {}) {
        const Simulator simulator(std::vector<std::string>(sizes.size(), kind.name + properties),
                                  sizes.size());
        const std::vector<uint64_t> ids = test::listedIds();
        std::set<Bytes> expected;
        for (size_t i = 0; i < sizes.size(); ++i) {
            const Bytes payload = randomBytes(sizes[i]);
            EXPECT_EQ(load(ids.at(i), kind, payload), 0);
            EXPECT_EQ(close(), 0);
            expected.insert(payload);
        }
        std::set<Bytes> found;
        for (const uint64_t id : instruments(sizes.size())) {
            for (const size_t size : sizes) {
                const Bytes firmware = firmwareOf(id, kind, size);
                if (expected.contains(firmware))
                    found.insert(firmware);
            }
        }
        EXPECT_EQ(found, expected);
    }
    // A load that fails because of that property; then one that works.
    void bootAfterFailure(const Kind &kind, const std::string &property, int32_t status,
                          const std::function<void()> &recover = nullptr) {
        const Simulator simulator({std::string(kind.name) + "," + property});
        const Bytes payload = randomBytes(5000);
        const uint64_t id = test::listedIds().at(0);
        EXPECT_EQ(load(id, kind, payload), status) << kind.name << " " << property;
        if (recover)
            recover();
        EXPECT_EQ(close(), 0);
        EXPECT_EQ(load(id, kind, payload), 0) << kind.name << " " << property;
        EXPECT_EQ(close(), 0);
        if (kind.load != kLoadSpl) {
            EXPECT_EQ(firmwareOf(instruments(1).at(0), kind, payload.size()), payload);
        }
    }
    void unplugInLoad(const Kind &kind, unsigned step) {
        const Simulator simulator({std::string(kind.name) + ",unplug=" + std::to_string(step)});
        const Bytes payload = randomBytes(5000);
        const uint64_t id = test::listedIds().at(0);
        EXPECT_EQ(load(id, kind, payload), VEXA_USB_STATUS_UNKNOWN) << kind.name;
        ASSERT_TRUE(events->wait(VEXA_USB_DEVICE_EVENT_REMOVED));
        EXPECT_EQ(kind.load(device, kind.image(payload)), VEXA_USB_STATUS_DEVICE_REMOVED);
        EXPECT_EQ(close(), 0);
        std::vector<uint64_t> ids;
        ASSERT_TRUE(test::eventually([&]() {
            ids = test::listedIds(false);
            return ids.size() == 1 && ids[0] != id;
        }));
        EXPECT_EQ(load(ids[0], kind, payload), 0) << kind.name;
        EXPECT_EQ(close(), 0);
    }

    Events *events = nullptr; // of the device that is being loaded
    _vexa_usb_device *device = nullptr;
};

// A byte, a block, and one byte (or word) more.
TEST_F(FirmwareTest, Fx2Boots) {
    boot(kFx2, {1, 255, 256, 0x1000}, ",delay=2");
}

// A firmware that finds itself renumerated by the loader before it, so leaves that alone; writes a
// byte by its page; and, a long while after its start and after the first request that it gets,
// leaves the bus.  What the chip reaches by itself, it has from the chip.
TEST_F(FirmwareTest, Fx2RenumeratesWhenTold) {
    const Simulator simulator({"fx2"});
    const Kind waiting{"fx2",
                       [](const Bytes &program) {
                           Bytes image;
                           appendHexRecord(image, 0, 0, program);
                           return image;
                       },
                       [](_vexa_usb_device *chip, const Bytes &image) {
                           const auto poke = [&](uint16_t address) {
                               return test::steer(chip, 0xA0, address, 0, {0x11, 0x22});
                           };
                           EXPECT_EQ(poke(0x3FFE), 0);
                           EXPECT_EQ(poke(0xE000), 0);
                           EXPECT_EQ(poke(0xE1FE), 0);
                           for (const uint16_t refused :
                                std::array<uint16_t, 5>{0x3FFF, 0x4000, 0xDFFF, 0xE1FF, 0xE600})
                               EXPECT_EQ(poke(refused), VEXA_USB_STATUS_UNKNOWN) << refused;
                           return kFx2.load(chip, image);
                       },
                       0x3512};
    EXPECT_EQ(load(test::listedIds().at(0), waiting,
                   {0x75, 0x92, 0x35, 0x78, 0x12, 0x74, 0x5A, 0xF2, 0x7D, 0x04, 0xDF, 0xFE,
                    0xDE, 0xFC, 0xDD, 0xFA, 0x90, 0xE6, 0x5D, 0xE0, 0x30, 0xE0, 0xFC, 0x90,
                    0xE6, 0xA0, 0x74, 0x80, 0xF0, 0x7D, 0x04, 0xDF, 0xFE, 0xDE, 0xFC, 0xDD,
                    0xFA, 0x90, 0xE6, 0x80, 0x74, 0x0A, 0xF0, 0x74, 0x02, 0xF0, 0x80, 0xFE}),
              0);
    EXPECT_EQ(instruments(0).size(), 0U);
    EXPECT_EQ(vexa_usb_fx2_renumerate(device), 0);
    EXPECT_EQ(close(), 0);
    EXPECT_EQ(firmwareOf(instruments(1).at(0), waiting, 1), Bytes{0x5A});
}

TEST_F(FirmwareTest, Fx3Boots) {
    boot(kFx3, {4, 2048, 2052, 100000});
}

TEST_F(FirmwareTest, DfuBoots) {
    boot(kDfu, {1, 4096, 4097}, ",poll=3,linger=20");
    boot(kDfu, {8U << 20}, ",linger=20");
}

TEST_F(FirmwareTest, Imx7BootsInTwoStages) {
    for (const size_t size : {size_t{1}, size_t{1024 - 64}, size_t{1025 - 64}}) {
        const Simulator simulator({"imx7"});
        const Bytes spl = randomBytes(size);
        const Bytes uboot = randomBytes(size);
        const uint64_t id = test::listedIds().at(0);
        EXPECT_EQ(load(id, kImx7, spl), 0);
        EXPECT_EQ(close(), 0);
        std::vector<uint64_t> ids;
        ASSERT_TRUE(test::eventually([&]() {
            ids = test::listedIds(false);
            return ids.size() == 1 && ids[0] != id;
        }));
        const Load loadUboot = [](_vexa_usb_device *stage, const Bytes &image) {
            return vexa_usb_imx7_load_firmware_uboot(stage, image.data(), image.size());
        };
        const Kind stage{"imx7", ubootImage, loadUboot, 0};
        EXPECT_EQ(load(ids[0], stage, uboot), 0);
        EXPECT_EQ(close(), 0);
        Bytes both = splImage(spl);
        append(both, ubootImage(uboot));
        EXPECT_EQ(firmwareOf(instruments(1).at(0), stage, both.size()), both);
    }
}

TEST_F(FirmwareTest, SecondLoadAfterAFailedOne) {
    bootAfterFailure(kFx2, "fail=5", VEXA_USB_STATUS_UNKNOWN);
    bootAfterFailure(kFx2, "short=65", VEXA_USB_STATUS_NOT_ALL_DATA_TRANSFERRED);
    bootAfterFailure(kFx3, "fail=2", VEXA_USB_STATUS_UNKNOWN);
    bootAfterFailure(kFx3, "short=1", VEXA_USB_STATUS_NOT_ALL_DATA_TRANSFERRED);
    bootAfterFailure(kImx7, "bad-status=1", VEXA_USB_STATUS_UNKNOWN);
    bootAfterFailure(kImx7, "fail=4", VEXA_USB_STATUS_UNKNOWN); // in the middle of the data
    // Its error state is for the caller to clear.
    bootAfterFailure(kDfu, "bad-status=2,linger=20", VEXA_USB_STATUS_UNKNOWN, [this]() {
        EXPECT_NE(kDfu.load(device, {1}), 0);
        EXPECT_EQ(vexa_usb_control_transfer(device, VEXA_USB_DIRECTION_OUT, VEXA_USB_TYPE_CLASS,
                                            VEXA_USB_RECIPIENT_INTERFACE, 4, 0, 0, nullptr, 0),
                  0);
    });
}

TEST_F(FirmwareTest, UnplugInTheMiddle) {
    unplugInLoad(kFx2, 65);
    unplugInLoad(kFx3, 2);
    unplugInLoad(kDfu, 4);
    unplugInLoad(kImx7, 3);
}

TEST_F(FirmwareTest, SlowerThanTheTimeOut) {
    const Simulator simulator({"fx3,delay=1200"});
    EXPECT_EQ(load(test::listedIds().at(0), kFx3, {1}), VEXA_USB_STATUS_TIMEOUT);
    EXPECT_EQ(close(), 0);
}

} // namespace
