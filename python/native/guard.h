// The library's functions as Python calls them: none lets a C++ exception through, and those of a
// device take the number that bridgeDeviceNew() gave in the handle's place.
#pragma once

#include <cstdint>
#include <exception>
#include <memory>
#include <new>
#include <string>
#include <system_error>
#include <type_traits>

#include "bridge.h"

namespace bridge {

// What bridgeException() tells.
inline thread_local std::string exceptionText;

template <typename Call>
auto shielded(Call call) noexcept -> decltype(call()) {
    using Result = decltype(call());
    int32_t status = VEXA_USB_STATUS_UNKNOWN;
    exceptionText.clear();
    try {
        return call();
    } catch (const std::bad_alloc &) {
        status = VEXA_USB_STATUS_NO_MEMORY;
        if constexpr (std::is_void_v<Result>)
            exceptionText = "no memory"; // short, so that it takes none
    } catch (const std::system_error &error) {
        exceptionText = error.what();
    } catch (const std::exception &error) { // of a firmware image that is wrong
        exceptionText = error.what();
        status = VEXA_USB_STATUS_INVALID_PARAMETERS;
    }
    if constexpr (std::is_same_v<Result, int32_t>)
        return status;
    else
        return Result();
}

// The beginning of a call from Python, and its end: a thread that would go on in an interpreter
// that is being taken apart, and could only fail there, stays where it is.
class Departure {
public:
    Departure() = default;
    ~Departure();
    Departure(const Departure &) = delete;
    Departure &operator=(const Departure &) = delete;
};

class Device;

// A call on a device in progress; keeps it open.
class DeviceCall {
public:
    explicit DeviceCall(uint64_t device);
    ~DeviceCall();
    DeviceCall(const DeviceCall &) = delete;
    DeviceCall &operator=(const DeviceCall &) = delete;

    // Null when the device was closed.
    _vexa_usb_device *handle() const { return handle_; }
    Device &device() const { return *device_; }

private:
    const std::shared_ptr<Device> device_;
    _vexa_usb_device *handle_;
};

template <typename... Rest>
int32_t guarded(int32_t (*function)(_vexa_usb_device *, Rest...), _vexa_usb_device *number,
                std::type_identity_t<Rest>... rest) noexcept {
    const Departure departure;
    const DeviceCall call(reinterpret_cast<uint64_t>(number));
    if (call.handle() == nullptr)
        return kBridgeClosed;
    return shielded([&]() { return function(call.handle(), rest...); });
}

template <typename Result, typename... Arguments>
Result guarded(Result (*function)(Arguments...),
               std::type_identity_t<Arguments>... arguments) noexcept {
    const Departure departure;
    return shielded([&]() { return function(arguments...); });
}

} // namespace bridge
