#pragma once

#include <nlohmann/json.hpp>

#include "device_list.h"

namespace tool {

// For dump(): a device's strings may be invalid UTF-8, which JSON does not allow.
inline constexpr auto kReplaceWrongText = nlohmann::json::error_handler_t::replace;

// What is known of a device without opening it.
nlohmann::json attachedJson(const UsbDevice &device);
nlohmann::json deviceJson(const ListedDevice &listed);

} // namespace tool
