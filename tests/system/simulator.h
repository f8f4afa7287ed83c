#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <sys/types.h>

#include "support/event_log.h"
#include "support/waiting.h"
#include "vexa_usb.h"

namespace test {

// vexa-usb-sim with its devices plugged into this machine, for as long as this lives.
class Simulator {
public:
    // Waits until these devices, and no others, are listed, unless `wait` is false.
    explicit Simulator(std::vector<std::string> arguments, size_t devices = 1, bool wait = true);
    ~Simulator();
    Simulator(const Simulator &) = delete;
    Simulator &operator=(const Simulator &) = delete;

private:
    pid_t process_ = 0;
};

// The ids of the listed devices, after an update.
std::vector<uint64_t> listedIds(bool update = true);
// The id of the device with that product, once it is listed under another than this one.
uint64_t idOf(uint16_t product, uint64_t but = 0);
// Those that are instruments, as the list has them now.
std::vector<uint64_t> listedInstruments();

// Opens the listed device with that id; null when that fails, with the status in `status`.
_vexa_usb_device *openDevice(uint64_t id, EventLog &events, int32_t *status = nullptr);

// A vendor request that steers the simulated instrument.
int32_t steer(_vexa_usb_device *device, uint8_t request, uint16_t value = 0, uint16_t index = 0,
              std::vector<uint8_t> data = {});
// One that asks it for as many bytes.
int32_t ask(_vexa_usb_device *device, uint8_t request, std::vector<uint8_t> &answer,
            size_t offset = 0);
int32_t rewindStream(_vexa_usb_device *device);
int32_t vanish(_vexa_usb_device *device, uint64_t afterBytes, uint32_t returnAfterMs,
               uint16_t product = 0, uint16_t afterMs = 0);

// The memory that the system allows for the transfers of all programs.
void limitTransfers(const std::string &mebibytes);
size_t openDescriptors();
std::vector<pid_t> threads();
// Mappings of devices' files into this process.
size_t sharedMappings();

// Whether the system comes to list that many devices with that name, "VENDOR:PRODUCT", of which a
// half may be missing.
bool systemLists(const std::string &name, size_t count);

} // namespace test
