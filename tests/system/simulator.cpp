#include "simulator.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "instrument_protocol.h"

namespace test {

namespace {

constexpr std::chrono::milliseconds kStep{10};
constexpr int kMostSteps = 3000;

std::vector<uint8_t> bytesOf(const void *object, size_t size) {
    std::vector<uint8_t> bytes(size);
    std::memcpy(bytes.data(), object, size);
    return bytes;
}

// Whether the shell's condition comes true.
bool shellSays(const std::string &condition) {
    return eventually([&]() {
        return std::system(condition.c_str()) == 0; // NOLINT(bugprone-command-processor)
    });
}

} // namespace

bool waitStep(int &step) {
    std::this_thread::sleep_for(kStep);
    return ++step < kMostSteps;
}

Simulator::Simulator(std::vector<std::string> arguments, size_t devices, bool wait) {
    // The list hears of an earlier simulator's end a moment after the kernel.
    if (wait && !eventually([]() { return listedIds(false).empty(); }))
        throw std::runtime_error("earlier devices are still listed");
    arguments.insert(arguments.begin(), {VEXA_SIMULATOR, "--attach", "--port", "0"});
    std::vector<char *> words;
    for (std::string &argument : arguments)
        words.push_back(argument.data());
    words.push_back(nullptr);
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, "/dev/null", 0, 0);
    const int error = posix_spawn(&process, VEXA_SIMULATOR, &files, nullptr, words.data(), environ);
    posix_spawn_file_actions_destroy(&files);
    if (error != 0)
        throw std::runtime_error("cannot start " VEXA_SIMULATOR);
    if (wait && !eventually([&]() { return listedIds().size() == devices; }))
        throw std::runtime_error("the simulated devices did not appear");
}

// Waits until the kernel has let the devices go, so that the next test finds an empty bus.
Simulator::~Simulator() {
    kill(process, SIGTERM);
    int status = 0;
    waitpid(process, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        std::fprintf(stderr, "the simulator ended with status %#x\n",
                     static_cast<unsigned>(status));
        std::abort();
    }
    if (!shellSays("! lsusb | grep -qv 'ID 1d6b:'")) // nothing but root hubs
        std::abort();
}

namespace {

std::vector<uint64_t> idsOf(bool (*wanted)(const _vexa_usb_device_list_item &)) {
    _vexa_usb_device_list_item **list = nullptr;
    uint64_t count = 0;
    std::vector<uint64_t> ids;
    if (vexa_usb_get_device_list(&list, &count) != VEXA_USB_STATUS_SUCCESS)
        return ids;
    for (uint64_t i = 0; i < count; ++i) {
        if (wanted(*list[i]))
            ids.push_back(list[i]->id);
    }
    vexa_usb_free_device_list(list);
    return ids;
}

} // namespace

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

_vexa_usb_device *openDevice(uint64_t id, vexa_usb_device_event_callback callback, void *data,
                             int32_t *status) {
    _vexa_usb_device_list_item **list = nullptr;
    _vexa_usb_device *device = nullptr;
    int32_t result = vexa_usb_get_device_list(&list, nullptr);
    if (result == VEXA_USB_STATUS_SUCCESS) {
        result = VEXA_USB_STATUS_UNKNOWN;
        for (auto **item = list; *item != nullptr; ++item) {
            if ((*item)->id == id)
                result = vexa_usb_open(*item, callback, data, &device);
        }
        vexa_usb_free_device_list(list);
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

int32_t rewindStream(_vexa_usb_device *device) {
    return steer(device, sim::kRequestSeek, 0, 0, std::vector<uint8_t>(8));
}

int32_t vanish(_vexa_usb_device *device, uint64_t afterBytes, uint32_t returnAfterMs,
               uint16_t product, uint16_t afterMs) {
    const sim::VanishRequest request{afterBytes, returnAfterMs, product, afterMs};
    return steer(device, sim::kRequestVanish, 0, 0, bytesOf(&request, sizeof(request)));
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

size_t sharedMappings() {
    std::ifstream maps("/proc/self/maps");
    size_t count = 0;
    for (std::string line; std::getline(maps, line);)
        count += line.find("/dev/bus/usb") == std::string::npos ? 0 : 1;
    return count;
}

} // namespace test
