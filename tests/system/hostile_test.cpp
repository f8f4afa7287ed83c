// Devices that lie: each call ends in time with a documented status, what is taken as right is
// right, and the command has a sentence for it.
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/wait.h>

#include "instrument_protocol.h"
#include "simulator.h"
#include "stream_pattern.h"

namespace {

using test::EventLog;
using test::Simulator;

using Bytes = std::vector<uint8_t>;

constexpr uint16_t kFirstProduct = 0x100;

// The command ends by itself with that status, and says no more to the terminal than text.  It may
// wait for several answers that do not come, 1 s each, and the sanitizer makes it slow.
void command(int expected, const std::string &words) {
    const std::string file = "/tmp/hostile." + words.substr(0, 4);
    const int status = std::system( // NOLINT(bugprone-command-processor)
        ("ASAN_OPTIONS=exitcode=99 timeout 60 " VEXA_TOOL " " + words + " >" + file + " 2>&1")
            .c_str());
    std::ifstream input(file);
    const std::string said(std::istreambuf_iterator<char>(input), {});
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == expected) << words << ": " << said;
    EXPECT_TRUE(expected == 0 || said.find("vexa-usb: ") != std::string::npos) << words;
    EXPECT_EQ(said.find('\x1B'), std::string::npos) << words;
}

// What the calls answer to a device with one of these lies.
struct Lies {
    int32_t open;
    int32_t control; // to the device, as the next
    int32_t bulk;
    bool streams;
    std::vector<const char *> names;
};

// With VEXA_HOSTILE all are told, without it the first of each row.
const std::vector<Lies> kLies{
    {0, -13, -13, false, {"silence"}}, // takes longest
    {0, 0, 0, true, {"packet-huge", "config-long", "configuration-0"}},
    {0, 0, 0, true, {"string-wild", "string-long", "string-odd", "string-missing"}},
    {0, 0, 0, false, {"config-short", "cut-endpoint", "many-endpoints"}},
    {0, 0, 0, false, {"babble"}},
    {0, 0, -1, false, {"empty-descriptor", "long-descriptor"}},
    {0, 0, -1, false, {"packet-0"}},
    {-1, 0, 0, false, {"interface-200", "configuration-2"}},
    {0, -14, -14, false, {"nothing", "takes-too-much"}},
    {0, -1, -1, false, {"no-status", "stall"}},
};

bool isDocumented(int32_t status) {
    return status <= 1 && status >= -14;
}

void transfer(_vexa_usb_device *device, const Lies &lies, const char *name) {
    const Bytes sent(600, 0x5A);
    Bytes back(600);
    EXPECT_EQ(test::steer(device, sim::kRequestScratch, 0, 0, {1, 2, 3}), lies.control) << name;
    int32_t status = vexa_usb_control_transfer(device, 1, VEXA_USB_TYPE_VENDOR, 0,
                                               sim::kRequestScratch, 0, 0, back.data(), 3);
    EXPECT_TRUE(isDocumented(status) && (status != 0 || back[2] == 3)) << name;
    EXPECT_EQ(vexa_usb_bulk_write(device, sim::kBulkLoopOut, sent.data(), 600), lies.bulk) << name;
    status = vexa_usb_bulk_read(device, sim::kBulkLoopIn, back.data(), 600);
    EXPECT_TRUE(isDocumented(status) && (status != 0 || back == sent)) << name;
    EXPECT_TRUE(isDocumented(vexa_usb_event_pipe_enable(device, sim::kEventEndpoint))) << name;
    test::steer(device, sim::kRequestSendEvents, 0, 0, {7});
}

// Whether a strict stream reports buffers, which are right.
bool streams(_vexa_usb_device *device, EventLog &events, const char *name) {
    const bool known = test::rewindStream(device) == 0;
    const int32_t status = vexa_usb_data_stream_start(device, sim::kStreamEndpoint, 65536, 8);
    EXPECT_TRUE(isDocumented(status)) << name;
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    uint8_t *data = nullptr;
    uint64_t size = 0;
    size_t seen = 0;
    while (known && seen < events.count(VEXA_USB_DEVICE_EVENT_DATA_STREAM_BUFFER_FULL) &&
           vexa_usb_data_stream_buffer_lock(device, &data, &size) == 0) {
        EXPECT_EQ(sim::firstPatternError(size * seen++, {data, size}), size) << name;
        vexa_usb_data_stream_buffer_unlock(device);
    }
    return seen > 0;
}

// With the event pipe and the stream still active at the close.
void use(uint64_t id, const Lies &lies, const char *name) {
    EventLog &events = EventLog::make();
    int32_t status = 0;
    _vexa_usb_device *const device = test::openDevice(id, events, &status);
    EXPECT_EQ(status, lies.open) << name;
    if (device == nullptr)
        return;
    transfer(device, lies, name);
    EXPECT_EQ(streams(device, events, name), lies.streams) << name;
    EXPECT_EQ(vexa_usb_close(device), 0) << name;
}

TEST(HostileTest, EveryLie) {
    setenv("VEXA_USB_STREAM", "strict", 1);
    vexa_usb_init();
    std::vector<std::string> devices;
    std::vector<std::pair<const Lies *, const char *>> told;
    for (const Lies &lies : kLies) {
        for (const char *name : lies.names) {
            if (name != lies.names[0] && std::getenv("VEXA_HOSTILE") == nullptr)
                break;
            devices.push_back("hostile,product=" + std::to_string(kFirstProduct + told.size()) +
                              ",serial=" + name + ",lie=" + name);
            told.emplace_back(&lies, name);
        }
    }
    const Simulator simulator(devices, 0, false);
    std::vector<std::jthread> threads;
    for (const auto &[lies, name] : told) {
        const uint64_t id = test::idOf(static_cast<uint16_t>(kFirstProduct + threads.size()));
        threads.emplace_back([id, lies = lies, name = name]() {
            EXPECT_LT(test::timed([&]() { use(id, *lies, name); }), std::chrono::seconds(15));
        });
    }
    threads.clear();
    vexa_usb_fini();
}

TEST(HostileTest, TheCommand) {
    const std::vector<std::string> devices{
        "hostile,as=dfu,lie=dfu-busy",      "hostile,serial=config-short,lie=config-short",
        "hostile,serial=babble,lie=babble", "hostile,serial=nothing,lie=nothing",
        "hostile,lie=interface-200",        "hostile,lie=string-wild",
    };
    vexa_usb_init();
    const Simulator simulator(devices, devices.size());
    std::vector<std::jthread> threads;
    threads.emplace_back(command, 0, "list");
    threads.emplace_back(command, 0, "info --serial config-short");
    threads.emplace_back(command, 1, "read 0x82 8 --serial babble");
    threads.emplace_back(command, 6, "stream --bytes 1M --serial nothing");
    threads.emplace_back(command, 5, "load dfu 5658:0df0 /etc/services --timeout 1");
    threads.emplace_back(command, 4, "doctor"); // one has no interface 0
    threads.clear();
    vexa_usb_fini();
}

} // namespace
