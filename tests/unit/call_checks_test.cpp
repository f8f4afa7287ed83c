// The texts of the statuses, and the checks of the exported functions.
#include <array>
#include <climits>
#include <functional>
#include <string>
#include <vector>

#include "core/status.h"
#include "support/device_fixtures.h"

namespace {

TEST(Status, TextsAndMapping) {
    const std::array<const char *, 16> texts{"Not all data has been transferred",
                                             "Operation timed out",
                                             "Device removed error",
                                             "Invalid endpoint direction error",
                                             "Endpoint not supported error",
                                             "Stream buffer not active error",
                                             "Stream buffer active error",
                                             "Event pipe active error",
                                             "Event pipe not active error",
                                             "Invalid parameters error",
                                             "No memory error",
                                             "Library not initialized error",
                                             "Not supported error",
                                             "Unknown error",
                                             "Success",
                                             "Data stream buffer empty"};
    for (size_t i = 0; i < texts.size(); ++i)
        EXPECT_STREQ(vexa_usb_get_status_str(static_cast<int32_t>(i) - 14), texts[i]);
    for (const int32_t none : {2, -15, INT32_MAX, INT32_MIN})
        EXPECT_STREQ(vexa_usb_get_status_str(none), "");
    EXPECT_EQ(vexausb::statusFromLibusbError(LIBUSB_SUCCESS), 0);
    EXPECT_EQ(vexausb::statusFromLibusbError(LIBUSB_ERROR_TIMEOUT), -13);
    EXPECT_EQ(vexausb::statusFromLibusbError(LIBUSB_ERROR_NO_DEVICE), -1);
    EXPECT_EQ(vexausb::statusFromLibusbError(1), -1);

    const _vexa_usb_version &version = *vexa_usb_get_version();
    EXPECT_EQ(&version, vexa_usb_get_version());
    EXPECT_EQ(version.major, 0);
    EXPECT_EQ(version.minor, 8);
    EXPECT_EQ(version.patch, 2);
    EXPECT_EQ(version.build, 10);
    EXPECT_STREQ(version.suffix, "");
}

// What a call is given; one of them at a time is wrong.
struct Arguments {
    _vexa_usb_device *device;
    const _vexa_usb_device_list_item *item;
    bool hasFirst = true;  // pointer
    bool hasSecond = true; // pointer
    uint64_t length = 1;
    uint64_t count = 4;
    bool rightDirection = true;

    template <typename T>
    T *first(T &object) const {
        return hasFirst ? &object : nullptr;
    }
    template <typename T>
    T *second(T &object) const {
        return hasSecond ? &object : nullptr;
    }
    uint8_t in() const { return rightDirection ? 0x83 : 0x03; }
    uint8_t out() const { return rightDirection ? 0x03 : 0x83; }
};

struct Flaw {
    char name;
    int32_t status;
    std::function<void(Arguments &)> make;
};

const std::array<Flaw, 7> kFlaws{{
    {'d', -5, [](Arguments &arguments) { arguments.device = nullptr; }},
    {'i', -5, [](Arguments &arguments) { arguments.item = nullptr; }},
    {'f', -5, [](Arguments &arguments) { arguments.hasFirst = false; }},
    {'s', -5, [](Arguments &arguments) { arguments.hasSecond = false; }},
    {'l', -5, [](Arguments &arguments) { arguments.length = 0; }},
    {'c', -5, [](Arguments &arguments) { arguments.count = 0; }},
    {'e', -11, [](Arguments &arguments) { arguments.rightDirection = false; }},
}};

struct Function {
    const char *name;
    const char *flaws; // that it looks for
    int32_t fresh;     // the answer of a device that was just opened
    int32_t removed;
    std::function<int32_t(const Arguments &)> call;
};

uint8_t byte = 0;
uint8_t *bytes = nullptr;
uint32_t word = 0;
uint64_t number = 0;
_vexa_usb_version version;
_vexa_usb_device_descriptor descriptor;

int32_t getAndFree(bool good) {
    _vexa_usb_device_list_item **list = nullptr;
    const int32_t status = vexa_usb_get_device_list(good ? &list : nullptr, nullptr);
    if (list != nullptr)
        vexa_usb_free_device_list(list);
    return status;
}

int32_t freeList(bool good) {
    _vexa_usb_device_list_item *end = nullptr; // an empty list that no call may free
    _vexa_usb_device_list_item **list = &end;
    vexa_usb_get_device_list(&list, nullptr);
    const int32_t status = vexa_usb_free_device_list(good ? list : nullptr);
    if (!good)
        vexa_usb_free_device_list(list);
    return status;
}

int32_t open(const Arguments &arguments) {
    _vexa_usb_device *opened = nullptr;
    const int32_t status =
        vexa_usb_open(arguments.item, arguments.hasFirst ? test::EventLog::callback : nullptr,
                      &test::EventLog::make(), arguments.second(opened));
    if (opened != nullptr)
        vexa_usb_close(opened);
    return status;
}

int32_t registerCallback(const Arguments &arguments) {
    const vexa_usb_device_list_event_callback callback =
        [](uint32_t, const _vexa_usb_device_list_item *, void *) {};
    return vexa_usb_register_device_list_event_callback(arguments.hasFirst ? callback : nullptr,
                                                        nullptr, arguments.second(word));
}

using A = Arguments;
const std::vector<Function> kFunctions{
    {"get_device_list", "f", 0, 0, [](const A &a) { return getAndFree(a.hasFirst); }},
    {"free_device_list", "f", 0, 0, [](const A &a) { return freeList(a.hasFirst); }},
    {"open", "ifs", 0, -1, open},
    {"register", "fs", 0, 0, registerCallback},
    {"deregister", "", 0, 0,
     [](const A &) { return vexa_usb_deregister_device_list_event_callback(77); }},
    {"update", "", 0, 0, [](const A &) { return vexa_usb_update_device_list(); }},
    {"kernel_driver_version", "df", -2, -12,
     [](const A &a) { return vexa_usb_get_kernel_driver_version(a.device, a.first(version)); }},
    {"device_descriptor", "dfl", 0, -12,
     [](const A &a) {
         return vexa_usb_get_device_descriptor(a.device, a.first(descriptor), 15 + a.length);
     }},
    {"control_transfer", "d", 0, -12,
     [](const A &a) { return vexa_usb_control_transfer(a.device, 0, 0, 0, 0, 0, 0, nullptr, 0); }},
    {"interrupt_read", "dfle", 0, -12,
     [](const A &a) { return vexa_usb_interrupt_read(a.device, a.in(), a.first(byte), a.length); }},
    {"interrupt_write", "dfle", 0, -12,
     [](const A &a) {
         return vexa_usb_interrupt_write(a.device, a.out(), a.first(byte), a.length);
     }},
    {"bulk_read", "dfle", 0, -12,
     [](const A &a) { return vexa_usb_bulk_read(a.device, a.in(), a.first(byte), a.length); }},
    {"bulk_write", "dfle", 0, -12,
     [](const A &a) { return vexa_usb_bulk_write(a.device, a.out(), a.first(byte), a.length); }},
    {"pipe_disable", "d", -6, -6, [](const A &a) { return vexa_usb_event_pipe_disable(a.device); }},
    {"stream_stop", "d", -9, -9, [](const A &a) { return vexa_usb_data_stream_stop(a.device); }},
    {"stream_lock", "dfs", -9, -9,
     [](const A &a) {
         return vexa_usb_data_stream_buffer_lock(a.device, a.first(bytes), a.second(number));
     }},
    {"stream_unlock", "d", -9, -9,
     [](const A &a) { return vexa_usb_data_stream_buffer_unlock(a.device); }},
    {"memory_size_max", "df", 0, -12,
     [](const A &a) { return vexa_usb_data_stream_memory_size_max(a.device, a.first(number)); }},
    {"rate_max", "df", 0, -12,
     [](const A &a) { return vexa_usb_data_stream_rate_max(a.device, a.first(number)); }},
    {"fx2_reset", "d", 0, -12, [](const A &a) { return vexa_usb_fx2_reset(a.device); }},
    {"fx2_load", "d", 0, -12,
     [](const A &a) { return vexa_usb_fx2_load_firmware(a.device, nullptr, 0); }},
    {"fx2_renumerate", "d", 0, -12, [](const A &a) { return vexa_usb_fx2_renumerate(a.device); }},
    {"fx3_load", "dfl", 0, -12,
     [](const A &a) { return vexa_usb_fx3_load_firmware(a.device, a.first(word), a.length); }},
    {"dfu", "dfl", 0, -12,
     [](const A &a) {
         return vexa_usb_dfu_download(a.device, a.first(byte), a.length, nullptr, nullptr);
     }},
    {"imx7_spl", "dfl", -1, -12,
     [](const A &a) { return vexa_usb_imx7_load_firmware_spl(a.device, a.first(byte), a.length); }},
    {"imx7_uboot", "dfl", -1, -12,
     [](const A &a) {
         return vexa_usb_imx7_load_firmware_uboot(a.device, a.first(byte), a.length);
     }},
    {"lpc4370", "dfl", -2, -2,
     [](const A &a) { return vexa_usb_lpc4370_load_firmware(a.device, a.first(byte), a.length); }},
    {"pipe_enable", "de", 0, -12,
     [](const A &a) { return vexa_usb_event_pipe_enable(a.device, a.in()); }},
    {"stream_start", "dlce", 0, -12,
     [](const A &a) { return vexa_usb_data_stream_start(a.device, a.in(), a.length, a.count); }},
};

class CallChecksTest : public test::DeviceTest {
protected:
    CallChecksTest() {
        fake::onControl([](const fake::ControlRequest &request) {
            if ((request.requestType & 0x80) != 0)
                request.data[4] = 5; // what a download waits for
            return static_cast<int>(request.length);
        });
    }

    // Each flaw alone, and all of them at once, when the first check decides.
    void expectFlaws(const Function &function, int32_t statusOfAny) const {
        Arguments all{device, snapshot.list[0]};
        int32_t first = 0;
        for (const Flaw &flaw : kFlaws) {
            if (std::string(function.flaws).find(flaw.name) == std::string::npos)
                continue;
            Arguments arguments{device, snapshot.list[0]};
            flaw.make(arguments);
            flaw.make(all);
            first = first == 0 ? flaw.status : first;
            const int32_t expected = statusOfAny != 0 ? statusOfAny : flaw.status;
            EXPECT_EQ(function.call(arguments), expected) << function.name << " " << flaw.name;
        }
        if (first != 0) {
            EXPECT_EQ(function.call(all), statusOfAny != 0 ? statusOfAny : first) << function.name;
        }
    }
    void expectGood(const Function &function, int32_t status) const {
        EXPECT_EQ(function.call({device, snapshot.list[0]}), status) << function.name;
    }

    const test::Snapshot snapshot;
};

TEST_F(CallChecksTest, OneFlawAtATime) {
    EXPECT_EQ(vexa_usb_close(nullptr), -5);
    for (const Function &function : kFunctions) {
        expectFlaws(function, 0);
        expectGood(function, function.fresh);
        // The direction is looked at before the state: pipe and stream are active by now.
        expectFlaws(function, 0);
    }
    uint16_t size = 0;
    EXPECT_EQ(vexa_usb_get_max_packet_size(device, 0x83, nullptr), -5);
    EXPECT_EQ(vexa_usb_get_max_packet_size(device, 0x83, &size), 0);
    const auto *const odd =
        reinterpret_cast<uint32_t *>(reinterpret_cast<char *>(&number) + 2); // not aligned
    EXPECT_EQ(vexa_usb_fx3_load_firmware(device, odd, 1), -5);
}

TEST_F(CallChecksTest, FlawsComeBeforeTheRemoval) {
    remove();
    for (const Function &function : kFunctions) {
        expectFlaws(function, 0);
        expectGood(function, function.removed);
    }
    uint16_t size = 0;
    EXPECT_EQ(vexa_usb_get_max_packet_size(device, 0x83, nullptr), -5);
    EXPECT_EQ(vexa_usb_get_max_packet_size(device, 0x83, &size), -12);
}

TEST_F(CallChecksTest, InitialisationComesFirst) {
    vexa_usb_fini();
    EXPECT_EQ(vexa_usb_close(nullptr), -3);
    EXPECT_EQ(vexa_usb_close(device), -3);
    for (const Function &function : kFunctions) {
        expectFlaws(function, -3);
        expectGood(function, -3);
    }
    vexa_usb_init();
}

} // namespace
