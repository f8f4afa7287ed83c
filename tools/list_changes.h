#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "mailbox.h"

namespace tool {

struct ListChange {
    uint32_t type;
    uint64_t id;
    uint16_t vendor;
    uint16_t product;
};

// Collects the arrivals and departures of devices while it lives. Devices that are attached already
// count as arrivals. The library must stay initialised meanwhile.
class ListChanges {
public:
    ListChanges();
    ~ListChanges();
    ListChanges(const ListChanges &) = delete;
    ListChanges &operator=(const ListChanges &) = delete;

    std::optional<ListChange> wait(std::chrono::milliseconds atMost);

private:
    uint32_t callbackId_ = 0;
};

} // namespace tool
