#include "support/fake_libusb.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <memory>
#include <optional>
#include <utility>

#include "core/mutex.h"
#include "support/allocations.h"

struct libusb_device {
    fake::Device shape;
};
struct libusb_device_handle {
    libusb_device *device;
};
struct libusb_context {};

namespace {

using vexausb::Condition;
using vexausb::Mutex;
using vexausb::MutexLock;

struct Registration {
    int vendor;
    int product;
    libusb_hotplug_callback_fn callback;
};

struct Notice {
    libusb_device *device;
    libusb_hotplug_event event;
};

struct Failure {
    std::string function;
    int result;
    int skip;
};

struct State {
    std::deque<std::unique_ptr<libusb_device>> allDevices;
    std::vector<libusb_device *> attached;
    std::vector<Failure> failures;
    std::vector<std::string> calls;
    std::vector<Registration> registrations;
    std::deque<Notice> notices;
    std::vector<libusb_transfer *> allocated;
    std::map<const libusb_transfer *, void *> owners;
    std::vector<const void *> refused; // owners
    std::vector<libusb_transfer *> flying;
    std::deque<libusb_transfer *> done;
    std::vector<libusb_device_handle *> handles;
    std::vector<libusb_device **> lists; // whose devices hold references
    fake::TransferHandler transfer;
    fake::ControlHandler control;
    std::map<std::string, std::function<void()>, std::less<>> actions;
    libusb_context *context = nullptr;
    const libusb_device *announced = nullptr; // whose notice is being delivered
    size_t handling = 0;                      // threads inside libusb_handle_events
    uint64_t selfCompletions = 0;
    uint8_t nextByte = 0;
    uint8_t nextAddress = 1;
    bool interrupted = false;
    bool closedInFlight = false;
    bool held = false;
};

Mutex callbackMutex; // held while callbacks run; taken before `mutex`
Mutex mutex;
Condition changed;
State state GUARDED_BY(mutex);

// What the stand-in allocates while it is locked is not the library's.
class SCOPED_LOCKABLE StateLock {
public:
    StateLock() ACQUIRE(mutex) : lock_(mutex) {}
    ~StateLock() RELEASE() {}
    StateLock(const StateLock &) = delete;
    StateLock &operator=(const StateLock &) = delete;

private:
    const allocations::Exempt exempt_;
    const MutexLock lock_;
};

template <typename Container, typename Element>
bool contains(const Container &container, Element element) {
    return std::find(container.begin(), container.end(), element) != container.end();
}

// In libusb these are memory errors; here the program stops where they happen.
void violation(const char *what) {
    std::fprintf(stderr, "libusb contract violated: %s\n", what);
    std::abort();
}

// What the call is to answer, if it is to fail.
std::optional<int> failureOf(const std::string &function) REQUIRES(mutex) {
    const auto found =
        std::find_if(state.failures.begin(), state.failures.end(),
                     [&](const Failure &failure) { return failure.function == function; });
    if (found == state.failures.end() || found->skip-- > 0)
        return std::nullopt;
    const int result = found->result;
    state.failures.erase(found);
    ++fake::failuresMet;
    return result;
}

// What onCall() has asked for, once.
std::function<void()> takeAction(const char *function) {
    const StateLock lock;
    const auto found = state.actions.find(function);
    if (found == state.actions.end())
        return nullptr;
    std::function<void()> action = std::move(found->second);
    state.actions.erase(found);
    return action;
}

// Does what onCall() has asked for; without the lock, since that may call the stand-in.
void enter(const char *function) {
    if (const auto action = takeAction(function))
        action();
}

// As failureOf(), of a call that is noted.
std::optional<int> called(const std::string &function, const std::string &argument = {})
    REQUIRES(mutex) {
    state.calls.push_back(argument.empty() ? function : function + "(" + argument + ")");
    return failureOf(function);
}

void checkHandle(const libusb_device_handle *handle) REQUIRES(mutex) {
    if (!contains(state.handles, handle))
        violation("use of a handle that is not open");
}

bool isListed(const libusb_device *device) REQUIRES(mutex) {
    return std::any_of(state.lists.begin(), state.lists.end(), [device](auto *const *list) {
        while (*list != nullptr && *list != device)
            ++list;
        return *list != nullptr;
    });
}

// One that somebody holds a reference to.
void checkDevice(const libusb_device *device) REQUIRES(mutex) {
    const bool isOpen =
        std::any_of(state.handles.begin(), state.handles.end(),
                    [device](const auto *handle) { return handle->device == device; });
    if (!isOpen && !isListed(device) && device != state.announced)
        violation("use of a device that is not there");
}

void checkContext(const libusb_context *context) REQUIRES(mutex) {
    if (context == nullptr || context != state.context)
        violation("use of a context that is not there");
}

void checkAllocated(const libusb_transfer *transfer) REQUIRES(mutex) {
    if (!contains(state.allocated, transfer))
        violation("use of a transfer that is not there");
}

bool isWithLibusb(const libusb_transfer *transfer) REQUIRES(mutex) {
    return contains(state.flying, transfer) || contains(state.done, transfer);
}

void checkNothingIsLeft() REQUIRES(mutex) {
    if (!state.handles.empty() || !state.allocated.empty() || !state.lists.empty())
        violation("a handle, transfer or device list outlives its context");
}

void finishFilled(libusb_transfer *transfer, libusb_transfer_status status, int actual)
    REQUIRES(mutex) {
    std::erase(state.flying, transfer);
    transfer->status = status;
    transfer->actual_length = actual;
    state.done.push_back(transfer);
    changed.notifyAll();
}

// All of it unless `actual` says how much.
void finish(libusb_transfer *transfer, libusb_transfer_status status, int actual) REQUIRES(mutex) {
    if (actual < 0)
        actual = status == LIBUSB_TRANSFER_COMPLETED ? transfer->length : 0;
    for (int i = 0; status == LIBUSB_TRANSFER_COMPLETED && i < actual; ++i)
        transfer->buffer[i] = state.nextByte++;
    finishFilled(transfer, status, actual);
}

fake::InFlight seen(const libusb_transfer *transfer) REQUIRES(mutex) {
    return {transfer->endpoint, transfer->buffer, transfer->length, state.owners[transfer]};
}

// Null where there is none like that.
template <typename Predicate>
libusb_transfer *oldest(Predicate isWanted) REQUIRES(mutex) {
    const auto found =
        std::find_if(state.flying.begin(), state.flying.end(),
                     [&](auto *flying) REQUIRES(mutex) { return isWanted(seen(flying)); });
    return found == state.flying.end() ? nullptr : *found;
}

bool isSomethingDue() REQUIRES(mutex) {
    return !state.held && (!state.done.empty() || !state.notices.empty() ||
                           (state.selfCompletions > 0 && !state.flying.empty()));
}

void deliver(const Notice &notice, const std::vector<Registration> &registrations) {
    const libusb_device_descriptor &descriptor = notice.device->shape.descriptor;
    for (const auto &[vendor, product, callback] : registrations) {
        const bool fits = product == LIBUSB_HOTPLUG_MATCH_ANY || product == descriptor.idProduct;
        if (vendor == descriptor.idVendor && fits &&
            callback(nullptr, notice.device, notice.event, nullptr) != 0)
            violation("a notice ends its registration");
    }
}

// What is due next, to be called without the lock; null when nothing is.
std::function<void()> takeDelivery() {
    const StateLock lock;
    if (!isSomethingDue())
        return nullptr;
    if (!state.notices.empty()) {
        const Notice notice = state.notices.front();
        state.notices.pop_front();
        state.announced = notice.device;
        return [notice, registrations = state.registrations]() { deliver(notice, registrations); };
    }
    if (state.done.empty()) {
        --state.selfCompletions;
        libusb_transfer *const first = state.flying.front();
        finishFilled(first, LIBUSB_TRANSFER_COMPLETED, first->length);
    }
    libusb_transfer *const transfer = state.done.front();
    state.done.pop_front();
    return [transfer]() { transfer->callback(transfer); };
}

void notify(libusb_device *device, libusb_hotplug_event event) {
    const StateLock lock;
    state.notices.push_back({device, event});
    changed.notifyAll();
}

} // namespace

namespace fake {

void reset() {
    const StateLock lock;
    checkNothingIsLeft();
    if (state.context != nullptr)
        violation("a context was left behind");
    state = State{};
}

libusb_device *attach(uint16_t vendor, uint16_t product, uint16_t bcdUsb) {
    const StateLock lock;
    auto device = std::make_unique<libusb_device>();
    device->shape.descriptor = {18,     1,       bcdUsb, 0x11, 0x22, 0x33, 0x44,
                                vendor, product, 0x0123, 0x55, 0x66, 0x77, 0x88};
    device->shape.address = state.nextAddress++;
    state.attached.push_back(device.get());
    state.allDevices.push_back(std::move(device));
    return state.attached.back();
}

Device &describe(libusb_device *device) {
    return device->shape;
}

void detach(libusb_device *device) {
    const StateLock lock;
    std::erase(state.attached, device);
}

void reattach(libusb_device *device) {
    const StateLock lock;
    state.attached.push_back(device);
}

void notifyArrival(libusb_device *device) {
    notify(device, LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED);
}
void notifyDeparture(libusb_device *device) {
    notify(device, LIBUSB_HOTPLUG_EVENT_DEVICE_LEFT);
}

void failCall(const std::string &function, int result, int skip) {
    const StateLock lock;
    state.failures.push_back({function, result, skip});
}

std::vector<std::string> takeCalls() {
    const StateLock lock;
    return std::exchange(state.calls, {});
}

size_t countCalls(const std::string &function) {
    const StateLock lock;
    return static_cast<size_t>(std::count(state.calls.begin(), state.calls.end(), function));
}

void onTransfer(TransferHandler handler) {
    const StateLock lock;
    state.transfer = std::move(handler);
}

void onControl(ControlHandler handler) {
    const StateLock lock;
    state.control = std::move(handler);
}

void onCall(const std::string &function, std::function<void()> action) {
    const StateLock lock;
    state.actions[function] = std::move(action);
}

std::vector<InFlight> inFlight() {
    const StateLock lock;
    std::vector<InFlight> result;
    for (const libusb_transfer *transfer : state.flying)
        result.push_back(seen(transfer));
    return result;
}

size_t refusals(const void *owner) {
    const StateLock lock;
    return static_cast<size_t>(std::count(state.refused.begin(), state.refused.end(), owner));
}

void waitInFlight(size_t count) {
    const StateLock lock;
    if (!changed.waitUntil(mutex, std::chrono::steady_clock::now() + std::chrono::seconds(20),
                           [count]() REQUIRES(mutex) {
                               return state.flying.size() == count && state.done.empty();
                           }))
        violation("the expected number of transfers was never in flight");
}

void completeOldest(libusb_transfer_status status, int actual) {
    const StateLock lock;
    finish(state.flying.at(0), status, actual); // throws when there is none
}

bool completeOn(uint8_t endpoint) {
    const StateLock lock;
    libusb_transfer *const found =
        oldest([&](const InFlight &one) { return one.endpoint == endpoint; });
    if (found != nullptr)
        finish(found, LIBUSB_TRANSFER_COMPLETED, -1);
    return found != nullptr;
}

bool completeOf(const void *owner, const std::function<End(const InFlight &transfer)> &end) {
    const StateLock lock;
    libusb_transfer *const found = oldest([&](const InFlight &one) { return one.owner == owner; });
    if (found == nullptr)
        return false;
    const End how = end(seen(found));
    finishFilled(found, how.status, how.actual);
    return true;
}

void completeNewest(libusb_transfer_status status, int actual) {
    const StateLock lock;
    finish(state.flying.at(state.flying.size() - 1), status, actual);
}

void completeBySelf(uint64_t count) {
    const StateLock lock;
    state.selfCompletions = count;
    changed.notifyAll();
}

void deliverEvents() {
    const MutexLock callbacks(callbackMutex);
    while (const auto delivery = takeDelivery()) {
        delivery();
        const StateLock lock;
        state.announced = nullptr;
        changed.notifyAll();
    }
}

void holdEvents(bool held) {
    const StateLock lock;
    state.held = held;
    changed.notifyAll();
}

bool takeClosedInFlight() {
    const StateLock lock;
    return std::exchange(state.closedInFlight, false);
}

} // namespace fake

// The parts of libusb that the library uses, with parameters named as they are here.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)

int libusb_init(libusb_context **context) {
    enter("libusb_init");
    const StateLock lock;
    if (const auto failure = called("libusb_init"))
        return *failure;
    if (state.context != nullptr)
        violation("two contexts at once");
    state.context = *context = new libusb_context;
    state.interrupted = false;
    return LIBUSB_SUCCESS;
}

void libusb_exit(libusb_context *context) {
    enter("libusb_exit");
    const StateLock lock;
    called("libusb_exit");
    checkContext(context);
    checkNothingIsLeft();
    if (state.handling != 0)
        violation("a context ends while its events are handled");
    state.registrations.clear();
    state.context = nullptr;
    delete context;
}

int libusb_hotplug_register_callback(libusb_context *context, int events, int flags, int vendor,
                                     int product, int deviceClass,
                                     libusb_hotplug_callback_fn callback, void *data,
                                     libusb_hotplug_callback_handle *handle) {
    const StateLock lock;
    if (const auto failure = called("libusb_hotplug_register_callback",
                                    std::to_string(vendor) + "," + std::to_string(product)))
        return *failure;
    checkContext(context);
    if (events != 3 || flags != 0 || deviceClass != LIBUSB_HOTPLUG_MATCH_ANY || data != nullptr ||
        handle != nullptr)
        violation("unexpected hot-plug registration");
    state.registrations.push_back({vendor, product, callback});
    return LIBUSB_SUCCESS;
}

int libusb_handle_events(libusb_context *context) {
    {
        const StateLock lock;
        checkContext(context);
        ++state.handling;
        changed.wait(mutex, []() REQUIRES(mutex) { return state.interrupted || isSomethingDue(); });
        state.interrupted = false;
    }
    fake::deliverEvents();
    const StateLock lock;
    --state.handling;
    return LIBUSB_SUCCESS;
}

void libusb_interrupt_event_handler(libusb_context *context) {
    const StateLock lock;
    checkContext(context);
    called("libusb_interrupt_event_handler");
    state.interrupted = true;
    changed.notifyAll();
}

ssize_t libusb_get_device_list(libusb_context *context, libusb_device ***list) {
    const StateLock lock;
    if (const auto failure = called("libusb_get_device_list"))
        return *failure;
    checkContext(context);
    *list = static_cast<libusb_device **>(
        std::calloc(state.attached.size() + 1, sizeof(libusb_device *)));
    std::copy(state.attached.begin(), state.attached.end(), *list);
    state.lists.push_back(*list);
    return static_cast<ssize_t>(state.attached.size());
}

void libusb_free_device_list(libusb_device **list, int unref) {
    if (list == nullptr)
        return;
    const StateLock lock;
    if (unref == 0)
        violation("references to devices are left behind");
    if (std::erase(state.lists, list) != 1)
        violation("a device list freed twice");
    std::free(list);
}

int libusb_get_device_descriptor(libusb_device *device, libusb_device_descriptor *descriptor) {
    const StateLock lock;
    if (const auto failure = called("libusb_get_device_descriptor"))
        return *failure;
    checkDevice(device);
    *descriptor = device->shape.descriptor;
    return LIBUSB_SUCCESS;
}

uint8_t libusb_get_bus_number(libusb_device *device) {
    const StateLock lock;
    checkDevice(device);
    return device->shape.bus;
}
uint8_t libusb_get_device_address(libusb_device *device) {
    const StateLock lock;
    checkDevice(device);
    return device->shape.address;
}
libusb_device *libusb_get_device(libusb_device_handle *handle) {
    const StateLock lock;
    checkHandle(handle);
    return handle->device;
}

int libusb_get_max_packet_size(libusb_device *device, unsigned char endpoint) {
    enter("libusb_get_max_packet_size");
    const StateLock lock;
    if (const auto failure = called("libusb_get_max_packet_size"))
        return *failure;
    checkDevice(device);
    const auto found = device->shape.packetSizes.find(endpoint);
    return found == device->shape.packetSizes.end() ? LIBUSB_ERROR_NOT_FOUND : found->second;
}

int libusb_open(libusb_device *device, libusb_device_handle **handle) {
    const MutexLock callbacks(callbackMutex);
    const StateLock lock;
    checkDevice(device);
    if (const auto failure = called("libusb_open"))
        return *failure;
    *handle = new libusb_device_handle{device};
    state.handles.push_back(*handle);
    return LIBUSB_SUCCESS;
}

void libusb_close(libusb_device_handle *handle) {
    const MutexLock callbacks(callbackMutex);
    const StateLock lock;
    called("libusb_close");
    checkHandle(handle);
    const auto isOf = [&](const libusb_transfer *transfer) {
        return transfer->dev_handle == handle;
    };
    if (std::erase_if(state.flying, isOf) + std::erase_if(state.done, isOf) != 0)
        state.closedInFlight = true;
    changed.notifyAll();
    std::erase(state.handles, handle);
    delete handle;
}

namespace {

int interfaceCall(const char *function, libusb_device_handle *handle, int interface) {
    enter(function);
    const StateLock lock;
    checkHandle(handle);
    return called(function, std::to_string(interface)).value_or(LIBUSB_SUCCESS);
}

int synchronous(const char *function, libusb_device_handle *handle, unsigned char endpoint,
                unsigned char *data, int length, int *actual, unsigned timeout) {
    fake::TransferHandler handler;
    {
        const StateLock lock;
        checkHandle(handle);
        if (timeout != 1000)
            violation("unexpected time limit");
        if (const auto failure = called(function, std::to_string(length)))
            return *failure;
        handler = state.transfer;
    }
    *actual = length;
    const int result = handler ? handler(endpoint, data, length, actual) : LIBUSB_SUCCESS;
    const StateLock lock;
    checkHandle(handle); // not closed meanwhile
    return result;
}

} // namespace

int libusb_kernel_driver_active(libusb_device_handle *handle, int interface) {
    return interfaceCall("libusb_kernel_driver_active", handle, interface);
}
int libusb_detach_kernel_driver(libusb_device_handle *handle, int interface) {
    return interfaceCall("libusb_detach_kernel_driver", handle, interface);
}
int libusb_claim_interface(libusb_device_handle *handle, int interface) {
    return interfaceCall("libusb_claim_interface", handle, interface);
}
int libusb_release_interface(libusb_device_handle *handle, int interface) {
    return interfaceCall("libusb_release_interface", handle, interface);
}

int libusb_interrupt_transfer(libusb_device_handle *handle, unsigned char endpoint,
                              unsigned char *data, int length, int *actual, unsigned timeout) {
    return synchronous("libusb_interrupt_transfer", handle, endpoint, data, length, actual,
                       timeout);
}
int libusb_bulk_transfer(libusb_device_handle *handle, unsigned char endpoint, unsigned char *data,
                         int length, int *actual, unsigned timeout) {
    return synchronous("libusb_bulk_transfer", handle, endpoint, data, length, actual, timeout);
}

int libusb_control_transfer(libusb_device_handle *handle, uint8_t requestType, uint8_t request,
                            uint16_t value, uint16_t index, unsigned char *data, uint16_t length,
                            unsigned timeout) {
    const StateLock lock;
    checkHandle(handle);
    if (timeout != 1000)
        violation("unexpected time limit");
    std::string arguments = std::to_string(requestType);
    for (const unsigned argument :
         {unsigned{request}, unsigned{value}, unsigned{index}, unsigned{length}})
        arguments += "," + std::to_string(argument);
    if (const auto failure = called("libusb_control_transfer", arguments))
        return *failure;
    return state.control ? state.control({requestType, request, value, index, data, length})
                         : length;
}

libusb_transfer *libusb_alloc_transfer(int isochronousPackets) {
    enter("libusb_alloc_transfer");
    const StateLock lock;
    if (called("libusb_alloc_transfer") || isochronousPackets != 0)
        return nullptr;
    auto *const transfer = static_cast<libusb_transfer *>(std::calloc(1, sizeof(libusb_transfer)));
    state.allocated.push_back(transfer);
    state.owners[transfer] = fake::allocatingFor;
    return transfer;
}

void libusb_free_transfer(libusb_transfer *transfer) {
    if (transfer == nullptr)
        return;
    const StateLock lock;
    checkAllocated(transfer);
    if (isWithLibusb(transfer))
        violation("a transfer freed in flight");
    std::erase(state.allocated, transfer);
    state.owners.erase(transfer);
    std::free(transfer);
}

int libusb_submit_transfer(libusb_transfer *transfer) {
    enter("libusb_submit_transfer");
    const StateLock lock;
    checkAllocated(transfer);
    checkHandle(transfer->dev_handle);
    if (isWithLibusb(transfer))
        violation("a transfer submitted twice");
    if (transfer->timeout != 0 || transfer->type != LIBUSB_TRANSFER_TYPE_BULK ||
        transfer->flags != 0)
        violation("a transfer with a time limit, or of another kind");
    if (transfer->callback == nullptr || transfer->buffer == nullptr || transfer->length <= 0)
        violation("a transfer without memory or callback");
    if (const auto failure = failureOf("libusb_submit_transfer")) {
        state.refused.push_back(state.owners[transfer]);
        return *failure;
    }
    state.flying.push_back(transfer);
    changed.notifyAll();
    return LIBUSB_SUCCESS;
}

int libusb_cancel_transfer(libusb_transfer *transfer) {
    const StateLock lock;
    checkAllocated(transfer);
    checkHandle(transfer->dev_handle);
    if (!contains(state.flying, transfer))
        return LIBUSB_ERROR_NOT_FOUND;
    finish(transfer, LIBUSB_TRANSFER_CANCELLED, 0);
    return LIBUSB_SUCCESS;
}

const char *libusb_error_name(int error) {
    constexpr std::array kNames{
        "LIBUSB_SUCCESS",      "LIBUSB_ERROR_IO",          "LIBUSB_ERROR_INVALID_PARAM",
        "LIBUSB_ERROR_ACCESS", "LIBUSB_ERROR_NO_DEVICE",   "LIBUSB_ERROR_NOT_FOUND",
        "LIBUSB_ERROR_BUSY",   "LIBUSB_ERROR_TIMEOUT",     "LIBUSB_ERROR_OVERFLOW",
        "LIBUSB_ERROR_PIPE",   "LIBUSB_ERROR_INTERRUPTED", "LIBUSB_ERROR_NO_MEM"};
    const auto place = static_cast<size_t>(-error);
    return place < kNames.size() ? kNames[place] : "LIBUSB_ERROR_OTHER";
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)
