#include "simulator.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "instrument_protocol.h"
#include "support/device_list_snapshot.h"

namespace test {

namespace {

// Whether the shell's condition comes true.
bool shellSays(const std::string &condition) {
    return eventually([&]() {
        return std::system(condition.c_str()) == 0; // NOLINT(bugprone-command-processor)
    });
}

std::vector<uint64_t> idsOf(bool (*wanted)(const _vexa_usb_device_list_item &)) {
    const Snapshot snapshot;
    std::vector<uint64_t> ids;
    for (uint64_t i = 0; i < snapshot.count; ++i) {
        if (wanted(*snapshot.list[i]))
            ids.push_back(snapshot.list[i]->id);
    }
    return ids;
}

} // namespace

Simulator::Simulator(std::vector<std::string> arguments, size_t devices, bool wait) {
    // The list hears of an earlier simulator's end a moment after the kernel.
    if (wait && !eventually([]() { return listedIds(false).empty(); }))
        throw std::runtime_error("earlier devices are still listed");
    arguments.insert(arguments.begin(), {VEXA_SIMULATOR, "--attach", "--port", "0"});
    std::vector<char *> words;
    words.reserve(arguments.size() + 1);
    for (std::string &argument : arguments)
        words.push_back(argument.data());
    words.push_back(nullptr);
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, "/dev/null", 0, 0);
    const int error =
        posix_spawn(&process_, VEXA_SIMULATOR, &files, nullptr, words.data(), environ);
    posix_spawn_file_actions_destroy(&files);
    if (error != 0)
        throw std::runtime_error("cannot start " VEXA_SIMULATOR);
    if (wait && !eventually([&]() { return listedIds().size() == devices; }))
        throw std::runtime_error("the simulated devices did not appear");
}

// Waits until the kernel has let the devices go, so that the next test finds an empty bus.
Simulator::~Simulator() {
    kill(process_, SIGTERM);
    int status = 0;
    waitpid(process_, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        std::fprintf(stderr, "the simulator ended with status %#x\n",
                     static_cast<unsigned>(status));
        std::abort();
    }
    if (!shellSays("! lsusb | grep -qv 'ID 1d6b:'")) // nothing but root hubs
        std::abort();
}

std::vector<uint64_t> listedIds(bool update) {
    if (update)
        vexa_usb_update_device_list();
    return idsOf([](const _vexa_usb_device_list_item &) { return true; });
}

std::vector<uint64_t> listedInstruments() {
    return idsOf([](const _vexa_usb_device_list_item &item) {
        return item.vendor_id == VEXA_USB_VENDOR_ID && item.product_id == 0x0001;
    });
}

uint64_t idOf(uint16_t product, uint64_t but) {
    uint64_t id = 0;
    EXPECT_TRUE(eventually([&]() {
        const Snapshot snapshot;
        for (uint64_t i = 0; i < snapshot.count; ++i) {
            const _vexa_usb_device_list_item &item = *snapshot.list[i];
            if (item.product_id == product && item.id != but)
                id = item.id;
        }
        return id != 0;
    })) << product;
    return id;
}

_vexa_usb_device *openDevice(uint64_t id, EventLog &events, int32_t *status) {
    const Snapshot snapshot;
    _vexa_usb_device *device = nullptr;
    int32_t result = VEXA_USB_STATUS_UNKNOWN;
    for (uint64_t i = 0; i < snapshot.count; ++i) {
        if (snapshot.list[i]->id == id)
            result = vexa_usb_open(snapshot.list[i], EventLog::callback, &events, &device);
    }
    if (status != nullptr)
        *status = result;
    return device;
}

int32_t steer(_vexa_usb_device *device, uint8_t request, uint16_t value, uint16_t index,
              std::vector<uint8_t> data) {
    return vexa_usb_control_transfer(device, VEXA_USB_DIRECTION_OUT, VEXA_USB_TYPE_VENDOR,
                                     VEXA_USB_RECIPIENT_DEVICE, request, value, index, data.data(),
                                     data.size());
}

int32_t ask(_vexa_usb_device *device, uint8_t request, std::vector<uint8_t> &answer,
            size_t offset) {
    return vexa_usb_control_transfer(
        device, VEXA_USB_DIRECTION_IN, VEXA_USB_TYPE_VENDOR, VEXA_USB_RECIPIENT_DEVICE, request,
        static_cast<uint16_t>(offset), static_cast<uint16_t>(offset >> 16), answer.data(),
        answer.size());
}

int32_t rewindStream(_vexa_usb_device *device) {
    return steer(device, sim::kRequestSeek, 0, 0, std::vector<uint8_t>(8));
}

int32_t vanish(_vexa_usb_device *device, uint64_t afterBytes, uint32_t returnAfterMs,
               uint16_t product, uint16_t afterMs) {
    const sim::VanishRequest request{afterBytes, returnAfterMs, product, afterMs};
    std::vector<uint8_t> bytes(sizeof(request));
    std::memcpy(bytes.data(), &request, sizeof(request));
    return steer(device, sim::kRequestVanish, 0, 0, bytes);
}

bool systemLists(const std::string &name, size_t count) {
    return shellSays("[ $(lsusb -d " + name + " | wc -l) -eq " + std::to_string(count) + " ]");
}

void limitTransfers(const std::string &mebibytes) {
    std::ofstream("/sys/module/usbcore/parameters/usbfs_memory_mb") << mebibytes;
}

size_t openDescriptors() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(all), end(all)));
}

std::vector<pid_t> threads() {
    std::vector<pid_t> numbers;
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task"))
        numbers.push_back(std::stoi(task.path().filename()));
    return numbers;
}

size_t sharedMappings() {
    std::ifstream maps("/proc/self/maps");
    size_t count = 0;
    for (std::string line; std::getline(maps, line);)
        count += line.find("/dev/bus/usb") == std::string::npos ? 0 : 1;
    return count;
}

} // namespace test
