#include "support/fake_libusb.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "support/allocations.h"

struct libusb_device {
    fake::Device shape;
};
struct libusb_device_handle {
    libusb_device *device;
};
struct libusb_context {};

namespace {

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
    size_t handling = 0; // threads inside libusb_handle_events
    uint64_t selfCompletions = 0;
    uint8_t nextByte = 0;
    uint8_t nextAddress = 1;
    bool interrupted = false;
    bool closedInFlight = false;
    bool held = false;
};

// What the stand-in allocates while it is locked is not the library's.
class ExemptMutex {
public:
    void lock() {
        inner_.lock();
        ++allocations::exemptions;
    }
    void unlock() {
        --allocations::exemptions;
        inner_.unlock();
    }

private:
    std::mutex inner_;
};

ExemptMutex mutex;       // guards state
std::mutex callbackLock; // held while callbacks run; taken before mutex
std::condition_variable_any changed;
State state;

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
std::optional<int> failureOf(const std::string &function) {
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

// A lock for a call of that function, which begins with what onCall() has asked for.
std::unique_lock<ExemptMutex> enter(const char *function) {
    std::unique_lock lock(mutex);
    const auto found = state.actions.find(function);
    if (found == state.actions.end())
        return lock;
    const auto action = std::move(found->second);
    state.actions.erase(found);
    lock.unlock();
    action();
    lock.lock();
    return lock;
}

// The same, of a call that is noted.
std::optional<int> called(const std::string &function, const std::string &argument = {}) {
    state.calls.push_back(argument.empty() ? function : function + "(" + argument + ")");
    return failureOf(function);
}

void checkHandle(const libusb_device_handle *handle) {
    if (!contains(state.handles, handle))
        violation("use of a handle that is not open");
}

void checkContext(const libusb_context *context) {
    if (context == nullptr || context != state.context)
        violation("use of a context that is not there");
}

void checkAllocated(const libusb_transfer *transfer) {
    if (!contains(state.allocated, transfer))
        violation("use of a transfer that is not there");
}

bool isWithLibusb(const libusb_transfer *transfer) {
    return contains(state.flying, transfer) || contains(state.done, transfer);
}

void checkNothingIsLeft() {
    if (!state.handles.empty() || !state.allocated.empty() || !state.lists.empty())
        violation("a handle, transfer or device list outlives its context");
}

void finishFilled(libusb_transfer *transfer, libusb_transfer_status status, int actual) {
    std::erase(state.flying, transfer);
    transfer->status = status;
    transfer->actual_length = actual;
    state.done.push_back(transfer);
    changed.notify_all();
}

// All of it unless `actual` says how much.
void finish(libusb_transfer *transfer, libusb_transfer_status status, int actual) {
    if (actual < 0)
        actual = status == LIBUSB_TRANSFER_COMPLETED ? transfer->length : 0;
    for (int i = 0; status == LIBUSB_TRANSFER_COMPLETED && i < actual; ++i)
        transfer->buffer[i] = state.nextByte++;
    finishFilled(transfer, status, actual);
}

fake::InFlight seen(const libusb_transfer *transfer) {
    return {transfer->endpoint, transfer->buffer, transfer->length, state.owners[transfer]};
}

// Null where there is none like that.
template <typename Condition>
libusb_transfer *oldest(Condition condition) {
    const auto found = std::find_if(state.flying.begin(), state.flying.end(),
                                    [&](auto *flying) { return condition(seen(flying)); });
    return found == state.flying.end() ? nullptr : *found;
}

bool isSomethingDue() {
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

void notify(libusb_device *device, libusb_hotplug_event event) {
    const std::lock_guard lock(mutex);
    state.notices.push_back({device, event});
    changed.notify_all();
}

} // namespace

namespace fake {

void reset() {
    const std::lock_guard lock(mutex);
    checkNothingIsLeft();
    if (state.context != nullptr)
        violation("a context was left behind");
    state = State{};
}

libusb_device *attach(uint16_t vendor, uint16_t product, uint16_t bcdUsb) {
    const std::lock_guard lock(mutex);
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
    const std::lock_guard lock(mutex);
    std::erase(state.attached, device);
}

void reattach(libusb_device *device) {
    const std::lock_guard lock(mutex);
    state.attached.push_back(device);
}

void notifyArrival(libusb_device *device) {
    notify(device, LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED);
}
void notifyDeparture(libusb_device *device) {
    notify(device, LIBUSB_HOTPLUG_EVENT_DEVICE_LEFT);
}

void failCall(const std::string &function, int result, int skip) {
    const std::lock_guard lock(mutex);
    state.failures.push_back({function, result, skip});
}

std::vector<std::string> takeCalls() {
    const std::lock_guard lock(mutex);
    return std::exchange(state.calls, {});
}

size_t countCalls(const std::string &function) {
    const std::lock_guard lock(mutex);
    return static_cast<size_t>(std::count(state.calls.begin(), state.calls.end(), function));
}

void onTransfer(TransferHandler handler) {
    const std::lock_guard lock(mutex);
    state.transfer = std::move(handler);
}

void onControl(ControlHandler handler) {
    const std::lock_guard lock(mutex);
    state.control = std::move(handler);
}

void onCall(const std::string &function, std::function<void()> action) {
    const std::lock_guard lock(mutex);
    state.actions[function] = std::move(action);
}

std::vector<InFlight> inFlight() {
    const std::lock_guard lock(mutex);
    std::vector<InFlight> result;
    for (const libusb_transfer *transfer : state.flying)
        result.push_back(seen(transfer));
    return result;
}

size_t refusals(const void *owner) {
    const std::lock_guard lock(mutex);
    return static_cast<size_t>(std::count(state.refused.begin(), state.refused.end(), owner));
}

void waitInFlight(size_t count) {
    std::unique_lock lock(mutex);
    if (!changed.wait_for(lock, std::chrono::seconds(20),
                          [&]() { return state.flying.size() == count && state.done.empty(); }))
        violation("the expected number of transfers was never in flight");
}

void completeOldest(libusb_transfer_status status, int actual) {
    const std::lock_guard lock(mutex);
    finish(state.flying.at(0), status, actual); // throws when there is none
}

bool completeOn(uint8_t endpoint) {
    const std::lock_guard lock(mutex);
    libusb_transfer *const found =
        oldest([&](const InFlight &one) { return one.endpoint == endpoint; });
    if (found != nullptr)
        finish(found, LIBUSB_TRANSFER_COMPLETED, -1);
    return found != nullptr;
}

bool completeOf(const void *owner, const std::function<End(const InFlight &transfer)> &end) {
    const std::lock_guard lock(mutex);
    libusb_transfer *const found = oldest([&](const InFlight &one) { return one.owner == owner; });
    if (found == nullptr)
        return false;
    const End how = end(seen(found));
    finishFilled(found, how.status, how.actual);
    return true;
}

void completeNewest(libusb_transfer_status status, int actual) {
    const std::lock_guard lock(mutex);
    finish(state.flying.at(state.flying.size() - 1), status, actual);
}

void completeBySelf(uint64_t count) {
    const std::lock_guard lock(mutex);
    state.selfCompletions = count;
    changed.notify_all();
}

void deliverEvents() {
    const std::lock_guard callbacks(callbackLock);
    std::unique_lock lock(mutex);
    while (isSomethingDue()) {
        if (state.done.empty() && state.notices.empty()) {
            --state.selfCompletions;
            finishFilled(state.flying.front(), LIBUSB_TRANSFER_COMPLETED,
                         state.flying.front()->length);
        }
        if (!state.notices.empty()) {
            const Notice notice = state.notices.front();
            state.notices.pop_front();
            const auto registrations = state.registrations;
            lock.unlock();
            deliver(notice, registrations);
        } else {
            libusb_transfer *const transfer = state.done.front();
            state.done.pop_front();
            lock.unlock();
            transfer->callback(transfer);
        }
        lock.lock();
        changed.notify_all();
    }
}

void holdEvents(bool held) {
    const std::lock_guard lock(mutex);
    state.held = held;
    changed.notify_all();
}

bool closedInFlight() {
    const std::lock_guard lock(mutex);
    return state.closedInFlight;
}

} // namespace fake

// The parts of libusb that the library uses, with parameters named as they are here.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)

int libusb_init(libusb_context **context) {
    const auto lock = enter("libusb_init");
    if (const auto failure = called("libusb_init"))
        return *failure;
    if (state.context != nullptr)
        violation("two contexts at once");
    state.context = *context = new libusb_context;
    state.interrupted = false;
    return LIBUSB_SUCCESS;
}

void libusb_exit(libusb_context *context) {
    const auto lock = enter("libusb_exit");
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
    const std::lock_guard lock(mutex);
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
        std::unique_lock lock(mutex);
        checkContext(context);
        ++state.handling;
        changed.wait(lock, []() { return state.interrupted || isSomethingDue(); });
        state.interrupted = false;
    }
    fake::deliverEvents();
    const std::lock_guard lock(mutex);
    --state.handling;
    return LIBUSB_SUCCESS;
}

void libusb_interrupt_event_handler(libusb_context *context) {
    const std::lock_guard lock(mutex);
    checkContext(context);
    called("libusb_interrupt_event_handler");
    state.interrupted = true;
    changed.notify_all();
}

ssize_t libusb_get_device_list(libusb_context *context, libusb_device ***list) {
    const std::lock_guard lock(mutex);
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
    const std::lock_guard lock(mutex);
    if (unref == 0)
        violation("references to devices are left behind");
    if (std::erase(state.lists, list) != 1)
        violation("a device list freed twice");
    std::free(list);
}

int libusb_get_device_descriptor(libusb_device *device, libusb_device_descriptor *descriptor) {
    const std::lock_guard lock(mutex);
    if (const auto failure = called("libusb_get_device_descriptor"))
        return *failure;
    *descriptor = device->shape.descriptor;
    return LIBUSB_SUCCESS;
}

uint8_t libusb_get_bus_number(libusb_device *device) {
    return device->shape.bus;
}
uint8_t libusb_get_device_address(libusb_device *device) {
    return device->shape.address;
}
libusb_device *libusb_get_device(libusb_device_handle *handle) {
    const std::lock_guard lock(mutex);
    checkHandle(handle);
    return handle->device;
}

int libusb_get_max_packet_size(libusb_device *device, unsigned char endpoint) {
    const auto lock = enter("libusb_get_max_packet_size");
    if (const auto failure = called("libusb_get_max_packet_size"))
        return *failure;
    const auto found = device->shape.packetSizes.find(endpoint);
    return found == device->shape.packetSizes.end() ? LIBUSB_ERROR_NOT_FOUND : found->second;
}

int libusb_open(libusb_device *device, libusb_device_handle **handle) {
    const std::lock_guard callbacks(callbackLock);
    const std::lock_guard lock(mutex);
    if (state.lists.empty())
        violation("use of a device whose list was freed");
    if (const auto failure = called("libusb_open"))
        return *failure;
    *handle = new libusb_device_handle{device};
    state.handles.push_back(*handle);
    return LIBUSB_SUCCESS;
}

void libusb_close(libusb_device_handle *handle) {
    const std::lock_guard callbacks(callbackLock);
    const std::lock_guard lock(mutex);
    called("libusb_close");
    checkHandle(handle);
    const auto isOf = [&](const libusb_transfer *transfer) {
        return transfer->dev_handle == handle;
    };
    if (std::erase_if(state.flying, isOf) + std::erase_if(state.done, isOf) != 0)
        state.closedInFlight = true;
    std::erase(state.handles, handle);
    delete handle;
}

namespace {

int interfaceCall(const char *function, libusb_device_handle *handle, int interface) {
    const auto lock = enter(function);
    checkHandle(handle);
    return called(function, std::to_string(interface)).value_or(LIBUSB_SUCCESS);
}

int synchronous(const char *function, libusb_device_handle *handle, unsigned char endpoint,
                unsigned char *data, int length, int *actual, unsigned timeout) {
    fake::TransferHandler handler;
    {
        const std::lock_guard lock(mutex);
        checkHandle(handle);
        if (timeout != 1000)
            violation("unexpected time limit");
        if (const auto failure = called(function, std::to_string(length)))
            return *failure;
        handler = state.transfer;
    }
    *actual = length;
    const int result = handler ? handler(endpoint, data, length, actual) : LIBUSB_SUCCESS;
    const std::lock_guard lock(mutex);
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
    const std::lock_guard lock(mutex);
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
    const auto lock = enter("libusb_alloc_transfer");
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
    const std::lock_guard lock(mutex);
    checkAllocated(transfer);
    if (isWithLibusb(transfer))
        violation("a transfer freed in flight");
    std::erase(state.allocated, transfer);
    state.owners.erase(transfer);
    std::free(transfer);
}

int libusb_submit_transfer(libusb_transfer *transfer) {
    const auto lock = enter("libusb_submit_transfer");
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
    changed.notify_all();
    return LIBUSB_SUCCESS;
}

int libusb_cancel_transfer(libusb_transfer *transfer) {
    const std::lock_guard lock(mutex);
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
