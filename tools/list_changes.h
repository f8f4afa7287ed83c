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

// Hears of the devices that come and go while it lives; those that are there already count as
// come.  The library must be initialised for as long.
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
