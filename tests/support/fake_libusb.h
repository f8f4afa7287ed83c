#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <libusb.h>

// A libusb that does what it is told, for what no device does on demand.  It keeps libusb's rules:
// callbacks run one at a time on whichever thread handles events, under a lock that libusb_open
// and libusb_close take too; closing a handle forgets its transfers.  What breaks libusb's contract
// ends the program with a message: a handle, transfer or device list that outlives its context, a
// transfer that is submitted twice, freed in flight or has a time limit, events that are handled
// while the context ends, and use of whatever is not there.
namespace fake {

struct Device {
    uint8_t bus = 1;
    uint8_t address = 1;
    libusb_device_descriptor descriptor{};
    std::map<uint8_t, int> packetSizes{{0x81, 64}, {0x82, 512}, {0x83, 512}, {0x03, 512}};
};

// Forgets everything; fails the test if a transfer, handle or context was left.
void reset();

// Attaches a device without a notice, or takes it away.  The pointer lives until reset().
libusb_device *attach(uint16_t vendor, uint16_t product, uint16_t bcdUsb = 0x0200);
Device &describe(libusb_device *device);
void detach(libusb_device *device);
// Brings one back that was taken away, to the same place.
void reattach(libusb_device *device);
// Hot-plug notices, delivered on the thread that handles events, to matching registrations.
void notifyArrival(libusb_device *device);
void notifyDeparture(libusb_device *device);

// The call after `skip` more of this function returns `result` (null for an allocation).
void failCall(const std::string &function, int result = LIBUSB_ERROR_IO, int skip = 0);
// How many such failures this thread has met.
inline thread_local size_t failuresMet = 0;
// The calls of interest so far, as "function" or "function(argument)"; clears them.
std::vector<std::string> takeCalls();
size_t countCalls(const std::string &function);

// Synchronous transfers; the defaults transfer everything.
using TransferHandler =
    std::function<int(uint8_t endpoint, uint8_t *data, int length, int *actual)>;
void onTransfer(TransferHandler handler);
struct ControlRequest {
    uint8_t requestType;
    uint8_t request;
    uint16_t value;
    uint16_t index;
    uint8_t *data;
    uint16_t length;
};
using ControlHandler = std::function<int(const ControlRequest &request)>;
void onControl(ControlHandler handler);
// Called once, at the beginning of the next call of this function: of those that begin, end or
// claim something, allocate or submit a transfer, or tell a packet size.
void onCall(const std::string &function, std::function<void()> action);

// Asynchronous transfers, oldest first.
inline thread_local void *allocatingFor = nullptr; // of the transfers that this thread allocates
struct InFlight {
    uint8_t endpoint;
    uint8_t *buffer;
    int length;
    void *owner;
};
std::vector<InFlight> inFlight();
// How many transfers of that owner were refused.
size_t refusals(const void *owner);
void waitInFlight(size_t count);
// Ends the oldest; completed ones are filled with the bytes that follow in a counting pattern.
void completeOldest(libusb_transfer_status status = LIBUSB_TRANSFER_COMPLETED, int actual = -1);
// Ends the oldest on that endpoint, with all its data; false when there is none.
bool completeOn(uint8_t endpoint);
// Ends the oldest of that owner as `end` says, which fills it.
struct End {
    libusb_transfer_status status;
    int actual;
};
bool completeOf(const void *owner, const std::function<End(const InFlight &transfer)> &end);
void completeNewest(libusb_transfer_status status, int actual = -1);
// Completes whatever is submitted by itself, up to that many transfers.
void completeBySelf(uint64_t count);
// Delivers what is due on the calling thread, as a synchronous call of libusb does.
void deliverEvents();
// Whether a handle was closed with a transfer in flight, since the last look.
bool takeClosedInFlight();
// Nothing is delivered while held.
void holdEvents(bool held);

} // namespace fake
